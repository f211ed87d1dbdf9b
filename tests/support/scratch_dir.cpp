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

// `path` is in the long form, for the deep and oddly named files that tests make.
void remove_all(const std::wstring &path)
{
    WIN32_FIND_DATAW entry;
    HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &entry);
    for (BOOL is_there = search != INVALID_HANDLE_VALUE; is_there;) {
        const std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..")
            remove_all(path + L"\\" + name);
        is_there = FindNextFileW(search, &entry);
    }
    FindClose(search);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!RemoveDirectoryW(path.c_str()))
        DeleteFileW(path.c_str());
}

} // namespace

ScratchDir::ScratchDir()
{
    wchar_t temp[MAX_PATH + 1];
    DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    if (length != 0 && length <= MAX_PATH) // it may have short names
        length = GetLongPathNameW(temp, temp, MAX_PATH + 1);
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
    const std::wstring path = L"\\\\?\\" + m_wide_path;
    for (int tries = 0; tries < 100; ++tries) {
        remove_all(path);
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
            return;
        Sleep(20); // a process that was ended lets go of its files a moment later
    }
    ADD_FAILURE() << "something still holds " << m_path;
}

} // namespace support
