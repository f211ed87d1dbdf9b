// The file that the workers share. A header is followed by entries of one size:
//
//     bytes 0..15   "thr-ledger-1\n", padded with zeros
//     then, for each entry:
//       8 bytes     running number, from 1
//       4 bytes     process id of the worker that wrote it
//       4 bytes     the worker's number in its run, from 1
//       8 bytes     seal: a checksum of the fields and of the seal of the entry before
//
// An entry's fields are written first and its seal second, so a writer that is ended in between
// leaves a last entry that is too short: it was never acknowledged, and the next writer cuts it
// off. A whole entry with a wrong seal is damage, and nothing here repairs that.
#ifndef LEDGER_FILE_H
#define LEDGER_FILE_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

// What went wrong, in words for the user.
class LedgerError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

struct Entry {
    uint64_t number;
    uint32_t process_id;
    uint32_t worker;
    uint64_t seal;
};

// An open ledger. Hold the lock of its path in every call, the constructor included: other
// processes write into the same file. Every failure is a LedgerError.
class LedgerFile
{
public:
    enum Mode { OPEN, OPEN_OR_CREATE };

    // Opens the ledger of a full path, and changes nothing in a file that is none.
    LedgerFile(const std::string &path, Mode mode);

    // Cuts off what an ended writer left of its last entry; returns how many bytes that was.
    uint32_t cut_torn_entry();

    // Adds an entry after the last one. In the file when this returns, so that the end of this
    // process does it no harm; a failure of the whole machine might (FlushFileBuffers() is left
    // out: it would lengthen the time under the lock).
    Entry append(uint32_t process_id, uint32_t worker);

    // In bytes, a torn last entry included.
    uint64_t size();

    // Reads every entry from the first byte on and checks numbers and seals; a torn last entry
    // does not count.
    std::vector<Entry> audit();

private:
    struct CloseFile {
        void operator()(HANDLE file) const { CloseHandle(file); }
    };

    void seek(uint64_t offset);
    void read(void *buffer, uint32_t size);
    void write(const void *bytes, uint32_t size);
    [[noreturn]] void fail(const char *action);

    std::string m_path;
    std::unique_ptr<void, CloseFile> m_file;
};

#endif
