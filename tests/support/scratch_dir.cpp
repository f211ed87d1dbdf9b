#include "support/scratch_dir.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include <windows.h>

namespace support
{

namespace
{

std::string narrow(const std::wstring &text)
{
    char bytes[MAX_PATH * 4];
    if (!WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, bytes, sizeof bytes, nullptr, nullptr))
        throw std::runtime_error("the folder for temporary files has no narrow name");
    return bytes;
}

void remove_content(const std::wstring &folder);

// `path` is in the long form, for the deep and oddly named files that tests make.
void remove_entry(const std::wstring &path, DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_READONLY)
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
        if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
            remove_content(path);
        RemoveDirectoryW(path.c_str());
    } else {
        DeleteFileW(path.c_str());
    }
}

void remove_content(const std::wstring &folder)
{
    WIN32_FIND_DATAW entry;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE)
        return;
    do {
        std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..")
            remove_entry(folder + L"\\" + name, entry.dwFileAttributes);
    } while (FindNextFileW(search, &entry));
    FindClose(search);
}

} // namespace

ScratchDir::ScratchDir()
{
    wchar_t temp[MAX_PATH + 1];
    DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0 || length > MAX_PATH)
        throw std::runtime_error("no folder for temporary files");
    static LONG count = 0;
    for (int tries = 0; tries < 100; ++tries) {
        m_wide_path = std::wstring(temp, length) + L"thr-test-" +
                      std::to_wstring(GetCurrentProcessId()) + L"-" +
                      std::to_wstring(InterlockedIncrement(&count));
        if (CreateDirectoryW(m_wide_path.c_str(), nullptr)) {
            m_path = narrow(m_wide_path);
            return;
        }
    }
    throw std::runtime_error("no scratch folder can be made below the one for temporary files");
}

ScratchDir::~ScratchDir()
{
    const std::wstring long_path = L"\\\\?\\" + m_wide_path;
    for (int tries = 0; tries < 100; ++tries) {
        remove_entry(long_path, FILE_ATTRIBUTE_DIRECTORY);
        if (GetFileAttributesW(long_path.c_str()) == INVALID_FILE_ATTRIBUTES)
            return;
        Sleep(20); // a process that was ended lets go of its files a moment later
    }
    ADD_FAILURE() << "something still holds " << m_path;
}

} // namespace support
