// What happens while the library is loaded and unloaded. This program is not linked with the library: a forked child
// opens it, with the calls of its load sequence interposed.

#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/assertion.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <dlfcn.h>
#include <elf.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <link.h>
#include <pthread.h>
#include <string>

namespace {

support::Fault createFault("pthread_key_create");
support::Fault deleteFault("pthread_key_delete");
bool tellEvents = false;
pthread_key_t libraryKey = static_cast<pthread_key_t>(-1);

/// Whether the library's `safeCout` has been constructed: its first word points to its virtual table.
bool safeCoutStands()
{
    void* library = dlopen(QUORVIL_LIBRARY, RTLD_NOLOAD | RTLD_LAZY);
    void* object = library ? dlsym(library, "safeCout") : nullptr;
    return object && *static_cast<void**>(object) != nullptr;
}

void write(const std::string& line)
{
    ASSERT_EQ(::write(STDOUT_FILENO, line.data(), line.size()), static_cast<ssize_t>(line.size()));
}

/// Tells an event of the load, and how far the load has come.
void tell(const std::string& event)
{
    if (!tellEvents)
        return;
    write(event + (safeCoutStands() ? ", console up\n" : ", no console\n"));
}

void* openLibrary()
{
    tellEvents = true;
    void* library = dlopen(QUORVIL_LIBRARY, RTLD_NOW);
    if (!library)
        std::fputs(dlerror(), stderr);
    tell("loaded");
    return library;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int stampGate(int stamp)
{
    tell("stampGate(" + std::to_string(stamp) + ")");
    return -1;
}

__attribute__((visibility("default"))) int mlockall(int flags) noexcept
{
    tell("mlockall");
    return support::real<int (*)(int)>("mlockall")(flags);
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int pthread_key_create(pthread_key_t* key,
                                                                                     void (*destructor)(void*)) noexcept
{
    if (createFault.strikes())
        return static_cast<int>(createFault.result);
    if (tellEvents)
        tell("pthread_key_create");
    const int result = support::real<int (*)(pthread_key_t*, void (*)(void*))>("pthread_key_create")(key, destructor);
    if (tellEvents)
        libraryKey = *key;
    return result;
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int pthread_key_delete(pthread_key_t key) noexcept
{
    if (key == libraryKey) {
        write("pthread_key_delete\n");
        if (deleteFault.strikes())
            return static_cast<int>(deleteFault.result);
    }
    return support::real<int (*)(pthread_key_t)>("pthread_key_delete")(key);
}
}

namespace {

/// Puts the number of repeated lines in their place.
std::string withRepeatsCounted(std::string text)
{
    const std::string line = "repeat pthread_key_create\n";
    const size_t begin = text.find(line);
    size_t end = begin;
    while (end != std::string::npos && text.compare(end, line.size(), line) == 0)
        end += line.size();
    return begin == end ? text
                        : text.replace(begin, end - begin, std::to_string((end - begin) / line.size()) + " repeats\n");
}

TEST(Load, StampsBeforeAnythingElseAndDeletesTheKeyAtTheEnd)
{
    const support::ChildResult child = support::runInChild([] { openLibrary(); });
    EXPECT_EQ(child.out, "stampGate(52), no console\n"
                         "mlockall, no console\n"
                         "pthread_key_create, no console\n"
                         "loaded, console up\n"
                         "pthread_key_delete\n");
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.status, 0);
}

TEST(Load, ReportsAKeyThatCannotBeCreatedAndGoesOn)
{
    const std::string stamped = "stampGate(52), no console\nmlockall, no console\n";
    const std::string created = "pthread_key_create, no console\nloaded, console up\npthread_key_delete\n";
    const std::string none = "loaded, console up\n";
    struct
    {
        const char* name;
        int error;
        int times;
        std::string out;
        std::string err;
        int calls;
    } const rows[] = {
        {"passing shortage", EAGAIN, 3, "3 repeats\n" + created, "", 4},
        {"shortage that ends just in time", EAGAIN, 1000, "1000 repeats\n" + created, "", 1001},
        {"lasting shortage", EAGAIN, support::always, "1000 repeats\n" + none,
         "Could not create threadKey! (error: 11)\n", 1001},
        {"no memory", ENOMEM, support::always, none, "Could not create threadKey! (error: ENOMEM\n)\n", 1},
        {"another error", EPERM, support::always, none, "Could not create threadKey! (error: 1)\n", 1},
    };
    for (const auto& row : rows) {
        const support::ChildResult child = support::runInChild([&row] {
            createFault.result = row.error;
            createFault.first = 1;
            createFault.times = row.times;
            createFault.calls = 0;
            openLibrary();
            if (createFault.calls != row.calls)
                std::fprintf(stderr, "%d calls\n", static_cast<int>(createFault.calls));
        });
        EXPECT_EQ(withRepeatsCounted(child.out), stamped + row.out) << row.name;
        EXPECT_EQ(child.err, row.err) << row.name;
        EXPECT_EQ(child.status, 0) << row.name;
    }
}

TEST(Load, WithoutItsKeyTheLibraryStartsNoManagedThread)
{
    const support::ChildResult child = support::runInChild([] {
        createFault.result = EPERM;
        createFault.first = 1;
        createFault.times = support::always;
        openLibrary();
        void* library = dlopen(QUORVIL_LIBRARY, RTLD_NOLOAD | RTLD_LAZY);
        const auto current = reinterpret_cast<void* (*)()>(dlsym(library, "_ZN4util6Thread7currentEv"));
        const auto construct = reinterpret_cast<void (*)(void*, void*, const std::string&)>(
            dlsym(library, "_ZN4util15ThreadInternalsC1EPNS_6ThreadERKNSt7__cxx1112basic_stringIcSt11char_"
                           "traitsIcESaIcEEE"));
        const auto start =
            reinterpret_cast<void (*)(void*, int, int, int)>(dlsym(library, "_ZN4util15ThreadInternals5startEiii"));
        if (!current || !construct || !start || current() != nullptr)
            return;
        alignas(std::max_align_t) static char place[4096]; // more than the object takes
        construct(place, nullptr, "thread");
        start(place, -1, -1, -1);
    });
    EXPECT_THAT(child.err, testing::ContainsRegex(support::assertion(
                               "Quorvil/Thread", "void util::ThreadInternals::start(int, int, int)", "keyCreated")));
    EXPECT_TRUE(WIFSIGNALED(child.status));
}

TEST(Load, ReportsAKeyThatCannotBeDeleted)
{
    struct
    {
        int error;
        const char* err;
    } const rows[] = {{EINVAL, "Could not delete threadKey! (error: EINVAL\n)\n"},
                      {EPERM, "Could not delete threadKey! (error: 1)\n"}};
    for (const auto& row : rows) {
        const support::ChildResult child = support::runInChild([&row] {
            deleteFault.result = row.error;
            deleteFault.first = 1;
            deleteFault.times = support::always;
            openLibrary();
        });
        EXPECT_EQ(child.err, row.err);
        EXPECT_EQ(child.status, 0);
    }
}

/// The texts of one section of the loaded library, one a pointer-sized slot. For a child: the library stays loaded.
std::string slotTexts(const std::string& section)
{
    std::ifstream file(QUORVIL_LIBRARY, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    void* library = dlopen(QUORVIL_LIBRARY, RTLD_NOW);
    link_map* map = nullptr;
    if (!library || dlinfo(library, RTLD_DI_LINKMAP, &map) != 0)
        return "not loaded";

    const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(bytes.data());
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(bytes.data() + header->e_shoff);
    const char* names = bytes.data() + sections[header->e_shstrndx].sh_offset;
    std::string texts;
    for (int i = 0; i < header->e_shnum; ++i) {
        if (section != names + sections[i].sh_name)
            continue;
        const auto* slots = reinterpret_cast<const char* const*>(map->l_addr + sections[i].sh_addr);
        for (size_t slot = 0; slot < sections[i].sh_size / sizeof(void*); ++slot)
            texts += std::string(slots[slot]) + "\n";
    }
    return texts;
}

TEST(LogSections, HoldTheGroupsOfTheSourcesInTheOrderOfTheSlots)
{
    struct
    {
        const char* source;
        const char* group;
    } const table[] = {
        {"QuorvilGlobals", "Noname"},        {"GeneralException", "Noname"},
        {"QuorvilSyncLockGroup", "Quorvil"}, {"QuorvilCoreDump", "QuorvilCoreDump"},
        {"SafeLinuxCalls", "Noname"},        {"Thread", "Noname"},
        {"CountingSemaphore", "Noname"},     {"QuorvilPthread", "Noname"},
        {"QuorvilLinuxTimer", "Noname"},     {"QuorvilPeriodicTimer", "Noname"},
        {"QuorvilTimeCollector", "Quorvil"}, {"QuorvilFastAllocator", "Noname"},
        {"QuorvilSocket", "Noname"},         {"LinuxPipe", "Noname"},
        {"QuorvilLimitedBuffer", "Quorvil"}, {"sqlite3cpp", "Noname"},
    };
    const std::string built = std::string(":") + QUORVIL_SOURCES + ":";
    std::string expected;
    int rows = 0;
    for (const auto& row : table)
        if (built.find(std::string(":") + row.source + ".cpp:") != std::string::npos)
            expected += std::string(row.group) + "\n", ++rows;

    EXPECT_GE(rows, 3);
    for (const char* section : {"LogGroups", "LogGroupsA"})
        EXPECT_EQ(support::runInChild([section] { std::fputs(slotTexts(section).c_str(), stdout); }).out, expected);
}

TEST(Surface, NamesThatOtherLanguagesAndToolsLookUpArePlain)
{
    const support::ChildResult child = support::runInChild([] {
        void* library = dlopen(QUORVIL_LIBRARY, RTLD_NOW);
        for (const char* name : {"Quorvil_constructor", "initLocale", "safeCout", "safeCerr"})
            std::printf("%d", library && dlsym(library, name) != nullptr);
    });
    EXPECT_EQ(child.out, "1111");
}

} // namespace
