// What happens while the library is loaded and unloaded. This program is not linked with the library: a forked child
// opens it, with the calls of its load sequence interposed.

#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <elf.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <link.h>
#include <pthread.h>
#include <string>

namespace {

support::Fault createFault("pthread_key_create");
int deleteResult = 0;
bool loading = false;
pthread_key_t libraryKey = static_cast<pthread_key_t>(-1);

/// Tells an event of the load, and, but at the end, whether the library's `safeCout` has been constructed: its first
/// word points to its virtual table then.
void tell(const std::string& event)
{
    void* const library = event == "deleted" ? nullptr : dlopen(QUORVIL_LIBRARY, RTLD_NOLOAD | RTLD_LAZY);
    void* const console = library ? dlsym(library, "safeCout") : nullptr;
    const std::string line = event + (console && *static_cast<void**>(console) ? ", console up\n" : "\n");
    EXPECT_EQ(write(STDOUT_FILENO, line.data(), line.size()), static_cast<ssize_t>(line.size()));
}

void* openLibrary()
{
    loading = true;
    void* const library = dlopen(QUORVIL_LIBRARY, RTLD_NOW);
    tell("loaded");
    return library;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int stampGate(int stamp)
{
    tell("stampGate " + std::to_string(stamp));
    return -1;
}

__attribute__((visibility("default"))) int mlockall(int flags) noexcept
{
    tell(flags == MCL_CURRENT ? "mlockall" : "mlockall of more than is mapped");
    return 0;
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int pthread_key_create(pthread_key_t* key,
                                                                                     void (*destructor)(void*)) noexcept
{
    if (createFault.strikes())
        return static_cast<int>(createFault.result);
    const int result = support::real<int (*)(pthread_key_t*, void (*)(void*))>("pthread_key_create")(key, destructor);
    if (loading) {
        tell("key");
        libraryKey = *key;
    }
    return result;
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int pthread_key_delete(pthread_key_t key) noexcept
{
    if (key != libraryKey)
        return support::real<int (*)(pthread_key_t)>("pthread_key_delete")(key);
    tell("deleted");
    return deleteResult;
}
}

namespace {

TEST(Load, StampsFirstRidesOutAShortageOfKeysAndReportsAKeyThatFails)
{
    const std::string stamped = "stampGate 52\nmlockall\n", loaded = "loaded, console up\n";
    const std::string created = "key\n" + loaded + "deleted\n";
    const struct
    {
        int createError, failures, deleteError, repeats;
        std::string out, err;
    } rows[] = {
        {0, 0, 0, 0, created, ""},
        {EAGAIN, 1000, 0, 1000, created, ""},
        {EAGAIN, support::always, 0, 1000, loaded, "Could not create threadKey! (error: 11)\n"},
        {ENOMEM, support::always, 0, 0, loaded, "Could not create threadKey! (error: ENOMEM\n)\n"},
        {EPERM, support::always, 0, 0, loaded, "Could not create threadKey! (error: 1)\n"},
        {0, 0, EINVAL, 0, created, "Could not delete threadKey! (error: EINVAL\n)\n"},
        {0, 0, EPERM, 0, created, "Could not delete threadKey! (error: 1)\n"},
    };
    for (const auto& row : rows) {
        const support::ChildResult child = support::runInChild([&row] {
            createFault.result = row.createError;
            createFault.first = 1;
            createFault.times = row.failures;
            createFault.calls = 0;
            deleteResult = row.deleteError;
            openLibrary();
        });
        std::string repeats;
        for (int i = 0; i < row.repeats; ++i)
            repeats += "repeat pthread_key_create\n";
        EXPECT_TRUE(child.out == stamped + repeats + row.out) << child.out.substr(0, 200);
        EXPECT_EQ(child.err, row.err);
        EXPECT_EQ(child.status, 0);
    }
}

TEST(Load, WithoutAKeyStartsNoThread)
{
    const support::ChildResult child = support::runInChild([] {
        createFault.fail(ENOMEM);
        void* const library = openLibrary();
        const std::string thread = "_ZN4util15ThreadInternals",
                          text = "St7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
        void* const make = dlsym(library, (thread + "C1EPNS_6ThreadERKN" + text).c_str());
        void* const start = dlsym(library, (thread + "5startEiii").c_str());
        void* const internals = operator new(1024);
        reinterpret_cast<void (*)(void*, void*, const std::string&)>(make)(internals, nullptr, thread);
        reinterpret_cast<void (*)(void*, int, int, int)>(start)(internals, -1, -1, -1);
    });
    const std::string failed = "void util::ThreadInternals::start(int, int, int): Assertion `keyCreated' failed";
    EXPECT_NE(child.err.find(failed), std::string::npos) << child.err;
}

/// The texts of one section of the library, one a pointer-sized slot. For a child: the library stays loaded.
std::string slotTexts(const std::string& section)
{
    link_map* map = nullptr;
    dlinfo(openLibrary(), RTLD_DI_LINKMAP, &map);
    std::ifstream file(QUORVIL_LIBRARY, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(bytes.data());
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(bytes.data() + header->e_shoff);
    const char* names = bytes.data() + sections[header->e_shstrndx].sh_offset;
    std::string texts;
    for (int i = 0; i < header->e_shnum; ++i)
        if (section == names + sections[i].sh_name)
            for (size_t slot = 0; slot < sections[i].sh_size / sizeof(void*); ++slot)
                texts +=
                    reinterpret_cast<const char* const*>(map->l_addr + sections[i].sh_addr)[slot] + std::string(" ");
    return texts;
}

TEST(LogSections, HoldTheGroupsOfTheSourcesInTheOrderOfTheSlots)
{
    for (const char* section : {"LogGroups", "LogGroupsA"})
        EXPECT_EQ(support::runInChild([=] { std::fputs(slotTexts(section).c_str(), stderr); }).err,
                  "Noname Noname Quorvil QuorvilCoreDump Noname Noname Noname Noname Noname Noname Quorvil Noname "
                  "Noname Noname Quorvil Noname ");
}

} // namespace
