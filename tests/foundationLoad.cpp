// What happens while the library is loaded and unloaded. This program is not linked with the library: a forked child
// opens it, with the calls of its load sequence interposed.

#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <elf.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <iterator>
#include <link.h>
#include <pthread.h>
#include <span>
#include <string>

SUPPORT_INTERPOSE(int, pthread_key_create, (pthread_key_t * key, void (*destructor)(void*)), (key, destructor),
                  noexcept)
SUPPORT_INTERPOSE(int, pthread_key_delete, (pthread_key_t key), (key), noexcept)

extern "C" int stampGate(int stamp)
{
    dprintf(STDOUT_FILENO, "stampGate %d\n", stamp);
    return -1;
}

int mlockall(int flags) noexcept
{
    dprintf(STDOUT_FILENO, flags == MCL_CURRENT ? "mlockall\n" : "mlockall of more than is mapped\n");
    return 0;
}

namespace {

/// To be called in a child: the library stays loaded.
void* openLibrary()
{
    static const support::HookScope create(pthread_key_createFault, [] { dprintf(STDOUT_FILENO, "key\n"); }),
        destroy(pthread_key_deleteFault, [] { dprintf(STDOUT_FILENO, "no key\n"); });
    void* const library = dlopen(QUORVIL_LIBRARY, RTLD_NOW);
    dprintf(STDOUT_FILENO, "loaded\n");
    return library;
}

TEST(Load, StampsFirstRidesOutAShortageOfKeysAndReportsAKeyThatFails)
{
    const std::string stamped = "stampGate 52\nmlockall\nkey\n", created = "loaded\nno key\n",
                      uncreated = "Could not create threadKey! (error: ", kept = "Could not delete threadKey! (error: ";
    std::string shortage;
    for (int i = 0; i < 1000; ++i)
        shortage += "repeat pthread_key_create\nkey\n";
    const struct
    {
        int createError, failures, deleteError;
        std::string out, err;
    } rows[] = {
        {0, 0, 0, created, ""},
        {EAGAIN, 1000, 0, shortage + created, ""},
        {EAGAIN, support::always, 0, shortage + "loaded\n", uncreated + "11)\n"},
        {ENOMEM, support::always, 0, "loaded\n", uncreated + "ENOMEM\n)\n"},
        {EPERM, support::always, 0, "loaded\n", uncreated + "1)\n"},
        {0, 0, EINVAL, created, kept + "EINVAL\n)\n"},
        {0, 0, EPERM, created, kept + "1)\n"},
    };
    for (const auto& row : rows) {
        const support::ChildResult child = support::runInChild([&row] {
            pthread_key_createFault.fail(row.createError, 0, 1, row.failures);
            pthread_key_deleteFault.fail(row.deleteError, 0, 1, row.deleteError != 0);
            openLibrary();
        });
        EXPECT_TRUE(child.out == stamped + row.out) << child.out.substr(0, 200);
        EXPECT_EQ(child.err, row.err);
        EXPECT_EQ(child.status, 0);
    }
}

TEST(Load, WithoutAKeyStartsNoThread)
{
    const support::ChildResult child = support::runInChild([] {
        pthread_key_createFault.fail(ENOMEM);
        void* const library = openLibrary();
        const std::string members = "_ZN4util15ThreadInternals";
        void* const make =
            dlsym(library, (members + "C1EPNS_6ThreadERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE").c_str());
        void* const start = dlsym(library, (members + "5startEiii").c_str());
        void* const current = dlsym(library, "_ZN4util6Thread7currentEv");
        std::fputs(reinterpret_cast<void* (*)()>(current)() ? "somebody: " : "nobody: ", stderr);
        void* const internals = operator new(1024);
        reinterpret_cast<void (*)(void*, void*, const std::string&)>(make)(internals, nullptr, members);
        reinterpret_cast<void (*)(void*, int, int, int)>(start)(internals, -1, -1, -1);
    });
    EXPECT_THAT(child.err, testing::ContainsRegex("nobody: .*start.int, int, int.: Assertion `keyCreated' failed"));
}

/// Writes the texts of both sections, one a pointer-sized slot.
void writeSlots()
{
    link_map* map = nullptr;
    dlinfo(openLibrary(), RTLD_DI_LINKMAP, &map);
    std::ifstream file(QUORVIL_LIBRARY, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto* const header = reinterpret_cast<const ElfW(Ehdr)*>(bytes.data());
    const auto* const sections = reinterpret_cast<const ElfW(Shdr)*>(bytes.data() + header->e_shoff);
    for (const std::string wanted : {"LogGroups", "LogGroupsA"})
        for (const auto& section : std::span(sections, header->e_shnum)) {
            if (wanted != bytes.data() + sections[header->e_shstrndx].sh_offset + section.sh_name)
                continue;
            const auto* const slots = reinterpret_cast<const char* const*>(map->l_addr + section.sh_addr);
            for (size_t slot = 0; slot < section.sh_size / sizeof(void*); ++slot)
                std::cerr << slots[slot] << " ";
        }
}

TEST(LogSections, HoldTheGroupsOfTheSourcesInTheOrderOfTheSlots)
{
    const std::string groups = "Noname Noname Quorvil QuorvilCoreDump Noname Noname Noname Noname Noname Noname "
                               "Quorvil Noname Noname Noname Quorvil Noname ";
    EXPECT_EQ(support::runInChild(writeSlots).err, groups + groups);
}

} // namespace
