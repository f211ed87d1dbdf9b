#include "ledger.h"
#include "ledger_file.h"

#include <cstdio>

namespace
{

// The host closes our input when nobody writes any more.
bool may_leave()
{
    int has_data;
    return thr_process_peek(thr_process_get_stdin(), &has_data) != 0;
}

size_t audit(const std::string &file, Semaphore *semaphore)
{
    ReadGuard guard(semaphore);
    LedgerFile ledger(file, LedgerFile::OPEN);
    uint64_t size = ledger.size();
    size_t count = ledger.audit().size();
    thr_msleep(2); // a writer that were here besides us would write meanwhile
    if (ledger.size() != size)
        throw LedgerError("somebody wrote beside the read lock");
    return count;
}

} // namespace

int run_reader(const std::string &file)
{
    try {
        Semaphore semaphore(file.c_str());
        size_t last = 0;
        do {
            size_t count = audit(file, &semaphore);
            if (count < last)
                throw LedgerError("entries have gone");
            last = count;
            printf("audit %u\n", static_cast<uint32_t>(count));
            fflush(stdout);
            thr_msleep(5); // waiting writers scan the readers' files without a pause
        } while (!may_leave());
        return 0;
    } catch (const LedgerError &error) {
        fprintf(stderr, "%s\n", error.what());
    } catch (const VELKORA_EXCEPTION &exception) {
        fprintf(stderr, "%s\n", exception.get_errc().get_error_message()[0].m_text.c_str());
    }
    return 1;
}
