#include "ledger_file.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>

namespace
{

const char HEADER[16] = "thr-ledger-1\n";
const uint32_t ENTRY_SIZE = sizeof(Entry);
const uint32_t FIELDS_SIZE = offsetof(Entry, seal);
const Entry BEFORE_THE_FIRST = {0, 0, 0, 0};

static_assert(ENTRY_SIZE == 24 && FIELDS_SIZE == 16, "the struct is the file's layout");

// FNV-1a
uint64_t checksum(uint64_t sum, const void *bytes, size_t size)
{
    const unsigned char *byte = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < size; i++)
        sum = (sum ^ byte[i]) * 0x100000001b3;
    return sum;
}

uint64_t seal_of(const Entry &entry, const Entry &before)
{
    uint64_t sum = checksum(0xcbf29ce484222325, &before.seal, sizeof before.seal);
    return checksum(sum, &entry, FIELDS_SIZE);
}

uint64_t whole_entries(uint64_t file_size)
{
    return (file_size - sizeof HEADER) / ENTRY_SIZE;
}

uint64_t offset_of(uint64_t index)
{
    return sizeof HEADER + index * ENTRY_SIZE;
}

std::string system_text(DWORD code)
{
    char text[512];
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, code, 0, text, sizeof text, nullptr);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
        length--;
    return length ? std::string(text, length) : "error " + std::to_string(code);
}

} // namespace

LedgerFile::LedgerFile(const std::string &path, Mode mode) : m_path(path)
{
    HANDLE file = CreateFileW(std::filesystem::u8path(path).c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              mode == OPEN ? OPEN_EXISTING : OPEN_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        fail("open");
    m_file.reset(file);
    char header[sizeof HEADER] = {};
    uint32_t there = static_cast<uint32_t>(std::min<uint64_t>(size(), sizeof header));
    read(header, there);
    bool is_torn = there < sizeof header; // a new file, or one whose maker ended in between
    if (memcmp(header, HEADER, there) != 0 || (is_torn && mode == OPEN))
        throw LedgerError(path + " is no ledger");
    if (is_torn) {
        seek(0);
        write(HEADER, sizeof HEADER);
    }
}

uint32_t LedgerFile::cut_torn_entry()
{
    uint64_t end = size();
    uint64_t whole_end = offset_of(whole_entries(end));
    if (whole_end == end)
        return 0;
    seek(whole_end);
    if (!SetEndOfFile(m_file.get()))
        fail("cut the torn entry of");
    return static_cast<uint32_t>(end - whole_end);
}

Entry LedgerFile::append(uint32_t process_id, uint32_t worker)
{
    uint64_t count = whole_entries(size());
    Entry last = BEFORE_THE_FIRST;
    if (count > 0) {
        seek(offset_of(count - 1));
        read(&last, sizeof last);
    }
    if (last.number != count)
        throw LedgerError("the last entry of " + m_path + " is damaged");

    Entry entry = {count + 1, process_id, worker, 0};
    entry.seal = seal_of(entry, last);
    seek(offset_of(count));
    write(&entry, FIELDS_SIZE);
    Sleep(1); // longer than a real writer takes, so that some are ended in the middle of an entry
    write(&entry.seal, sizeof entry.seal);
    return entry;
}

std::vector<Entry> LedgerFile::audit()
{
    std::vector<Entry> entries(whole_entries(size()));
    const size_t ENTRIES_A_READ = 4096;
    seek(offset_of(0));
    for (size_t i = 0; i < entries.size(); i += ENTRIES_A_READ) {
        size_t count = std::min(ENTRIES_A_READ, entries.size() - i);
        read(&entries[i], static_cast<uint32_t>(count * ENTRY_SIZE));
    }
    const Entry *before = &BEFORE_THE_FIRST;
    for (const Entry &entry : entries) {
        if (entry.number != before->number + 1 || entry.seal != seal_of(entry, *before))
            throw LedgerError("entry " + std::to_string(before->number + 1) + " of " + m_path +
                              " is damaged");
        before = &entry;
    }
    return entries;
}

uint64_t LedgerFile::size()
{
    LARGE_INTEGER size;
    if (!GetFileSizeEx(m_file.get(), &size))
        fail("get the size of");
    return static_cast<uint64_t>(size.QuadPart);
}

void LedgerFile::seek(uint64_t offset)
{
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    if (!SetFilePointerEx(m_file.get(), position, nullptr, FILE_BEGIN))
        fail("seek in");
}

void LedgerFile::read(void *buffer, uint32_t size)
{
    DWORD done = 0;
    if (!ReadFile(m_file.get(), buffer, size, &done, nullptr))
        fail("read");
    if (done != size)
        throw LedgerError(m_path + " has become shorter");
}

void LedgerFile::write(const void *bytes, uint32_t size)
{
    DWORD done = 0;
    if (!WriteFile(m_file.get(), bytes, size, &done, nullptr))
        fail("write");
    if (done != size)
        throw LedgerError("the disk of " + m_path + " is full");
}

void LedgerFile::fail(const char *action)
{
    DWORD code = GetLastError();
    throw LedgerError(std::string("can't ") + action + " " + m_path + ": " + system_text(code));
}
