// Paths that nobody would write: random pieces go through the path layer, the loading service's
// names and the lock files' paths. THR_RANDOM_SEED=number makes other ones.
#include "support/scratch_dir.h"

#include "thr/thr.h"
#include "thr/thr_interprocess.h"
#include "thr/thr_osi_sys.h"

#include <cstring>
#include <random>

#include <gtest/gtest.h>

namespace
{

const int PATHS = 4000;

std::string random_path(std::mt19937 &random)
{
    static const char *const PIECES[] = {"C:",       "Q:/",
                                         "\\\\?\\",  "//?/",
                                         "\\\\.\\",  "\\\\s\\t\\",
                                         "//s/t/",   "\\\\?\\UNC\\s\\", // begin
                                         "\\",       "/",
                                         "/",        "..",
                                         ".",        " ",
                                         ":",        "*",
                                         "?",        "|",
                                         "%s%n",     "a",
                                         "dir",      "con",
                                         "NUL.txt",  "aux",
                                         "com1",     ".dll",
                                         "\x01",     "\xff\xfe",
                                         "\xc3",     "\xed\xa0\x80",
                                         "\xc3\xa9", "\xe6\x97\xa5"};
    const size_t beginnings = 8;
    auto below = [&](size_t limit) { return random() % limit; };
    std::string path = below(2) ? "" : PIECES[below(beginnings)];
    for (size_t count = below(12); count > 0; --count)
        path += PIECES[beginnings + below(std::size(PIECES) - beginnings)];
    for (size_t count = below(4); count > 0; --count)
        path.insert(below(path.size() + 1), 1, static_cast<char>(1 + below(255)));
    if (below(10) == 0) // longer than a name, a path or a text of 16 bits may be
        path.insert(below(path.size() + 1), below(2) ? 240 + below(30) : below(70000), 'l');
    return path;
}

// The runtime's assertion is all that can come of a path that the system can't make absolute.
bool has_full_path(const std::string &path)
{
    std::wstring wide(path.size() + 1, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide.data(), static_cast<int>(wide.size()));
    return GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr) != 0;
}

void try_long_path(const std::string &path)
{
    const THR_WIDE_TEXT made = thr_osi_long_path(path.c_str());
    EXPECT_TRUE(made.compare(0, 4, L"\\\\?\\") == 0 || made.compare(0, 4, L"\\\\.\\") == 0);
    const bool is_prefixed = path.find_first_of("?.") == 2 && path.find_first_not_of("\\/") == 2;
    EXPECT_TRUE(is_prefixed || made[2] == L'.' || made.compare(5, 2, L":\\") == 0 ||
                made.compare(4, 4, L"UNC\\") == 0)
        << "neither a device nor on a drive or a share";
    EXPECT_TRUE(made.find(L'/') == made.npos || path.compare(0, 4, "\\\\?\\") == 0);
    size_t rest = made.compare(0, 8, L"\\\\?\\UNC\\") == 0 ? 8 : 4;
    EXPECT_NE(made.compare(rest, 4, L"\\\\?\\"), 0) << "it is prefixed once";
    struct _stat64i32 record;
    EXPECT_TRUE(thr_osi_stat(path.c_str(), &record) != 0 || thr_osi_path_exists(path.c_str()));
}

void try_library(const std::string &path, size_t maximum)
{
    std::string name(maximum + 2, '\xfd');
    thr_drl_construct_library_name(name.data(), maximum, path.c_str());
    EXPECT_EQ(name.back(), '\xfd') << "nothing is written past the end";
    size_t length = strlen(name.c_str());
    EXPECT_TRUE(length == name.size() || name.substr(length - 4, 4) == ".dll");
    thr_drl_is_loadable(path.c_str());
    EXPECT_EQ(thr_drl_is_loaded(path.c_str()), 0);
    EXPECT_EQ(thr_drl_load(path.c_str()), nullptr);
}

void try_lock_file_path(const std::string &path, const std::string &home)
{
    size_t separator = path.rfind(path.find('/') != path.npos ? '/' : '\\');
    if (separator != path.npos && separator != 0 && !has_full_path(path.substr(0, separator)))
        return;
    THR_HEAP_TEXT made = thr_ip_lock_file_path(path.c_str());
    char now[MAX_PATH];
    GetCurrentDirectoryA(sizeof now, now);
    EXPECT_EQ(now, home);
    if (made) {
        std::string end = "/" + path.substr(separator + 1); // all of it where there is none
        EXPECT_EQ(std::string(made.get()).substr(strlen(made.get()) - end.size()), end);
        EXPECT_TRUE(isalpha(made.get()[0])) << made.get();
    }
}

TEST(RandomPaths, KeepTheirProperties)
{
    const char *chosen = getenv("THR_RANDOM_SEED");
    unsigned seed = chosen ? static_cast<unsigned>(strtoul(chosen, nullptr, 10)) : 20250817;
    std::mt19937 random(seed);
    support::ScratchDir directory;
    SetCurrentDirectoryA(directory.path().c_str());
    CreateDirectoryA("dir", nullptr);
    int tried = 0;
    for (int i = 0; i < PATHS && !HasFailure(); ++i) {
        const std::string path = random_path(random);
        if (path.empty() || !has_full_path(path))
            continue;
        ++tried;
        SCOPED_TRACE(testing::PrintToString(path));
        try_long_path(path);
        try_library(path, random() % (2 * path.size()));
        try_lock_file_path(path, directory.path());
    }
    printf("seed %u, %d paths\n", seed, tried);
    EXPECT_TRUE(HasFailure() || tried > PATHS / 2);
    SetCurrentDirectoryA("\\");
}

} // namespace
