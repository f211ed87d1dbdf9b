#include "support/test.h"

#include <cctype>
#include <filesystem>
#include <stdexcept>

namespace support
{

bool eventually(const std::function<bool()> &condition)
{
    const ULONGLONG deadline = GetTickCount64() + PATIENCE_MS;
    while (!condition() && GetTickCount64() < deadline)
        Sleep(1);
    return condition();
}

bool start_in_some_tries(const std::function<bool()> &start)
{
    for (int tries = 1; !start(); ++tries) {
        if (tries == 5)
            return false;
        if (testing::UnitTest::GetInstance()->current_test_info()) // not in a role
            printf("a process is started again: %d\n", tries);
        Sleep(tries * 200);
    }
    return true;
}

std::string system_words(DWORD code)
{
    char words[4096];
    DWORD length =
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, words, sizeof words, nullptr);
    return length < 2 ? "no additional information available" : std::string(words, length - 2);
}

std::string literal_regex(const std::string &text)
{
    std::string regex;
    for (char c : text)
        regex += (ispunct(static_cast<unsigned char>(c)) ? "\\" : "") + std::string(1, c);
    return regex;
}

// `path` is in the long form, for the deep and oddly named files that tests make.
static void remove_all(const std::wstring &path)
{
    WIN32_FIND_DATAW entry;
    HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &entry);
    BOOL is_there = search != INVALID_HANDLE_VALUE;
    for (; is_there; is_there = FindNextFileW(search, &entry)) {
        if (wcscmp(entry.cFileName, L".") && wcscmp(entry.cFileName, L".."))
            remove_all(path + L"\\" + entry.cFileName);
    }
    FindClose(search);
    if (!RemoveDirectoryW(path.c_str()))
        DeleteFileW(path.c_str());
}

ScratchDir::ScratchDir()
{
    wchar_t temp[MAX_PATH + 1] = L"", path[MAX_PATH] = L""; // the first one may have short names
    GetLongPathNameW(std::filesystem::temp_directory_path().c_str(), temp, MAX_PATH + 1);
    GetTempFileNameW(temp, L"thr", 0, path); // a new file
    DeleteFileW(path);
    char bytes[MAX_PATH * 4];
    if (!CreateDirectoryW(path, nullptr) ||
        !WideCharToMultiByte(CP_ACP, 0, path, -1, bytes, sizeof bytes, nullptr, nullptr))
        throw std::runtime_error("no scratch folder can be made below the one for temporary files");
    m_wide_path = path;
    m_path = bytes;
}

ScratchDir::~ScratchDir()
{
    // a process that was ended lets go of its files a moment later
    EXPECT_TRUE(eventually([path = L"\\\\?\\" + m_wide_path] {
        remove_all(path);
        return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
    })) << "something still holds "
        << m_path;
}

size_t live_handle_count(size_t bound)
{
    size_t count = 0;
    DWORD flags;
    for (size_t i = 1; i <= bound; ++i)
        count += GetHandleInformation(reinterpret_cast<HANDLE>(i * 4), &flags) != 0;
    return count;
}

} // namespace support
