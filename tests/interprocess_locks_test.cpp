// The interprocess mutex and read-write semaphore of thr.dll, among real processes.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"

#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

using support::Child;
using support::ScratchDir;

namespace
{

// --- processes that obey ------------------------------------------------------------------------

// Static, as a host may have them: the end of the process destroys them, after a report too.
std::unique_ptr<THR_IP_MUTEX_OBJ> mutex;
std::unique_ptr<THR_IP_READ_WRITE_SEMAPHORE> sem;

const std::string OWN = "." + std::to_string(GetCurrentProcessId());

// What a process can be ordered to do, and the end of the file's name that it then holds.
const std::map<std::string, std::pair<bool (*)(), std::string>> ORDERS = {
    {"lock", {[] { return mutex->lock(); }, ".mtx.flock"}},
    {"try_lock", {[] { return mutex->try_lock(); }, ".mtx.flock"}},
    {"end_lock", {[] { return mutex->unlock(), true; }, ""}},
    {"read", {[] { return sem->read_lock(), true; }, OWN + ".rdr.flock"}},
    {"try_read", {[] { return sem->try_read_lock(); }, OWN + ".rdr.flock"}},
    {"end_read", {[] { return sem->read_unlock(), true; }, ""}},
    {"write", {[] { return sem->write_lock(), true; }, OWN + ".wtr.flock"}},
    {"try_write", {[] { return sem->try_write_lock(); }, OWN + ".wtr.flock"}},
    {"end_write", {[] { return sem->write_unlock(), true; }, ""}},
    {"destroy", {[] { return sem.reset(), mutex.reset(), true; }, ""}}};

// Whether a file is open and shared with nobody; its holder can't open it either.
bool is_held(const std::string &file)
{
    const std::wstring path = L"\\\\?\\" + std::wstring(file.begin(), file.end());
    HANDLE opened = CreateFileW(path.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    return opened == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION;
}

// What the library meets in such a process: pauses that take no time, and refusals.
struct Gates {
    std::string path;
    int polls; // after as many more it says that it waits
    int pauses;
    std::string refused; // the end of the names that are refused, as on a Windows volume while a
    int let_through;     // file of that name is being deleted; before that
    int refusals;

    // A line that comes meanwhile is another number of polls.
    void poll()
    {
        DWORD sent = 0;
        PeekNamedPipe(GetStdHandle(STD_INPUT_HANDLE), nullptr, 0, nullptr, &sent, nullptr);
        if (sent > 0)
            polls = std::stoi(*support::hear());
        else if (--polls == 0)
            support::say("waits");
    }
} gates;

HANDLE create(LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
              DWORD disposition, DWORD attributes, HANDLE pattern)
{
    const bool is_of_semaphore = wcsstr(path, L".rdr.flock") || wcsstr(path, L".wtr.flock");
    if (is_of_semaphore && !is_held(gates.path + ".cri.mtx.flock"))
        support::say("not under the atomic lock");
    const std::wstring suffix(gates.refused.begin(), gates.refused.end());
    const bool is_one = path + wcslen(path) - suffix.size() == suffix;
    if (!is_one || gates.let_through-- > 0 || gates.refusals-- <= 0)
        return CreateFileW(path, access, share, security, disposition, attributes, pattern);
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

// Obeys the orders of a line one after the other, and says their answers, or the internal error
// that ends it, which is shown until another line comes. A line begins with the number of polls
// after which it says that it waits. The second argument is the path with backslashes alone.
ROLE(obeys)
{
    auto pause = [](DWORD ms) {
        ms == 10 ? gates.pauses++ : throw std::runtime_error("another pause");
        gates.poll();
        Sleep(0);
    };
    auto list = [](LPCWSTR pattern, WIN32_FIND_DATAW *entry) {
        gates.poll();
        return FindFirstFileW(pattern, entry);
    };
    // No Windows enters a directory that is so long, but Wine does.
    auto enter = [](LPCWSTR d) { return wcslen(d) < 260 ? SetCurrentDirectoryW(d) : FALSE; };
    support::ImportPatch entering("SetCurrentDirectoryW", +enter), creating("CreateFileW", &create);
    support::ImportPatch pausing("Sleep", +pause), listing("FindFirstFileW", +list);
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        support::say(message);
        support::hear();
    });
    gates.path = args[1];
    mutex = std::make_unique<THR_IP_MUTEX_OBJ>(args[0].c_str());
    sem = std::make_unique<THR_IP_READ_WRITE_SEMAPHORE>(args[0].c_str());
    while (auto line = support::hear()) {
        std::istringstream words(*line);
        std::string answers, order;
        for (words >> gates.polls; words >> order;) {
            if (order == "refuse") {
                words >> gates.refused >> gates.let_through >> gates.refusals;
                gates.pauses = 0;
            } else if (order == "pauses") {
                answers += " " + std::to_string(gates.pauses) + " ";
            } else {
                const auto &[obey, file] = ORDERS.at(order);
                const bool is_done = obey();
                answers += is_done && (file.empty() || is_held(gates.path + file)) ? "1" : "0";
            }
        }
        support::say(answers);
    }
    return 0;
}

// A directory whose path is longer than Windows once allowed, and processes that use the mutex and
// the semaphore "db" in it. A process whose name is longer than a letter uses those of its name:
// "db.cri" and "db.wri" are the mutexes of the semaphore "db".
class Stage
{
public:
    Stage()
    {
        m_directory = L"\\\\?\\" + m_scratch.wide_path();
        while (m_directory.size() < 300)
            CreateDirectoryW((m_directory += L"\\with spaces").c_str(), nullptr);
    }
    std::wstring path(const wchar_t *name) { return m_directory + L"\\" + name; }

    // Plays steps: "WHO ORDERS = ANSWERS;". Without orders it answers those it had before. It may
    // answer "waits POLLS" or "ended STATUS". Throws at another answer: nothing else is held up.
    void play(const std::string &steps)
    {
        std::istringstream all(steps);
        for (std::string step; std::getline(all >> std::ws, step, ';');) {
            const size_t who = step.find(' '), equals = step.find(" = ");
            const std::string orders = step.substr(who, equals - who);
            const std::string answers = step.substr(equals + 3);
            const bool waits = answers.rfind("waits ", 0) == 0;
            Child &child = process(step.substr(0, who));
            if (orders == " kill")
                child.kill();
            else if (!orders.empty() || waits)
                child.write_line((waits ? answers.substr(6) : "0") + orders);
            std::optional<std::string> answer = child.read_line();
            if (!answer)
                answer = "ended " + std::to_string(child.wait().value_or(0));
            if (*answer != (waits ? "waits" : answers))
                throw std::runtime_error(step + ", not: " + *answer);
        }
    }

private:
    Child &process(const std::string &who)
    {
        std::unique_ptr<Child> &child = m_processes[who];
        if (!child) {
            const std::wstring path = m_directory.substr(4) + L"\\";
            const std::string plain =
                std::string(path.begin(), path.end()) + (who.size() == 1 ? "db" : who);
            std::string slashed = plain;
            slashed[plain.find("\\with")] = '/'; // behind it, backslashes do not split
            child.reset(new Child("obeys", {who == "L" ? plain : slashed, plain}));
        }
        return *child;
    }

    ScratchDir m_scratch;
    std::wstring m_directory; // begins with the four characters of a long path
    std::map<std::string, std::unique_ptr<Child>> m_processes;
};

TEST(IpLocks, CountWhatARecordHolds)
{
    Stage stage;
    for (std::string kind : {"lock", "read", "write"}) {
        const std::string end = "end_" + kind, other = kind == "lock" ? "lock" : "write";
        for (std::string first : {kind, "try_" + kind}) {
            for (std::string second : {kind, "try_" + kind})
                stage.play("A " + first + " " + second + " " + end + " = 111; B try_" + other +
                           " = 0; A " + end + " = 1; B try_" + other + " end_" + other + " = 11");
        }
    }
}

TEST(IpLocks, BrokenPreconditionsAreInternalErrors)
{
    const char text[] = "filepath && *filepath";
    EXPECT_INTERNAL_ERROR(thr_ip_mutex_create(""), text, "thr_interprocess_mutex");
    EXPECT_INTERNAL_ERROR(thr_ip_rw_sem_create(""), text, "thr_interprocess_rw_sem");
    Stage().play("A end_lock = mutex->m_ref_count > 0;"
                 "B end_read = sem->m_readers_ref_count > 0;"
                 "C write end_write end_write = sem->m_writers_ref_count > 0;"
                 // These two would wait for themselves.
                 "D read write = sem->m_readers_ref_count == 0; D go on = ended -1;"
                 "E write read = sem->m_writers_ref_count == 0");
}

// --- mutex --------------------------------------------------------------------------------------

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    Stage().play("A lock lock end_lock = 111; B lock lock = waits 1000; A kill = ended 197; B = 11;"
                 "C try_lock = 0; B destroy = 1; C try_lock end_lock = 11;"
                 "C refuse .mtx.flock 0 1 try_lock pauses = 0 0 ;"
                 "C refuse .mtx.flock 0 1 lock pauses lock = 0 1 1");
}

TEST(IpLocks, WithoutADirectoryCantBeTaken)
{
    ScratchDir scratch;
    const std::string directory = scratch.file("d"), path = directory + "/db";
    THR_IP_MUTEX bad = thr_ip_mutex_create(path.c_str());
    CreateDirectoryA(directory.c_str(), nullptr);
    THR_IP_MUTEX_OBJ good(path.c_str());
    EXPECT_TRUE(THR_IP_SCOPED_MUTEX(&good).was_lock_successful());
    EXPECT_FALSE(thr_ip_mutex_is_good(bad) || thr_ip_mutex_lock(bad) || thr_ip_mutex_try_lock(bad));
    thr_ip_mutex_destroy(bad);
    RemoveDirectoryA(directory.c_str());
    EXPECT_FALSE(THR_IP_SCOPED_MUTEX(&good).was_lock_successful()) << "no holder to wait for";
    EXPECT_THROW(THR_IP_READ_WRITE_SEMAPHORE{path.c_str()},
                 VELKORA_EXCEPTION_DETAIL::PASS_THROUGH_CONSTRUCTOR);
    try {
        THR_IP_READ_WRITE_SEMAPHORE none(path.c_str());
    } catch (VELKORA_EXCEPTION e) { // by value, so it is copied
        const std::string text = e.get_errc().get_error_message()[0].m_text;
        EXPECT_EQ(text, "Failed to create file lock on \"" + path + "\"");
    }
}

TEST(IpMutex, GuardsHandTheirLockOver)
{
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    const std::string paths[] = {scratch.file("a"), scratch.file("b")};
    THR_IP_MUTEX_OBJ a(paths[0].c_str()), b(paths[1].c_str());
    auto held = [&] {
        std::string names;
        for (const std::string &path : paths)
            names += THR_IP_MUTEX_OBJ(path.c_str()).try_lock() ? "" : path.substr(path.size() - 1);
        return names;
    };
    EXPECT_FALSE(Guard(nullptr).was_lock_successful());
    Guard outer(&a);
    {
        Guard inner(std::move(outer));
        EXPECT_TRUE(Guard(&a).was_lock_successful()) << "the same record: counted";
        EXPECT_TRUE(inner.was_lock_successful() && !outer.was_lock_successful());
        EXPECT_EQ(held(), "a");
    }
    EXPECT_EQ(held(), "") << "the new owner unlocked";
    outer = Guard(&a); // an empty guard can be used again
    Guard other(&b);
    EXPECT_EQ(held(), "ab");
    outer = std::move(other);
    EXPECT_EQ(held(), "b") << "its own lock goes first";
    EXPECT_TRUE(outer.was_lock_successful() && !other.was_lock_successful());
    Guard &same = outer;
    outer = std::move(same);
    EXPECT_FALSE(outer.was_lock_successful()) << "assigned to itself";
    EXPECT_EQ(held(), "");
}

// --- semaphore ----------------------------------------------------------------------------------

TEST(IpRwSem, ServesReadersTogetherAndWritersBeforeLaterReaders)
{
    Stage stage;
    // By processes that have ended: in nobody's way.
    const wchar_t *const left_over[] = {L"a.1.rdr.flock", L"z.1.rdr.flock", L"c.2.wtr.flock"};
    for (const wchar_t *file : left_over)
        CloseHandle(CreateFileW(stage.path(file).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0,
                                nullptr));
    stage.play("A read = 1; other read = 1; L try_write try_read try_write end_read = 0101;"
               "W write = waits 1000; L try_write try_read = 00");
    for (const wchar_t *file : left_over)
        EXPECT_EQ(GetFileAttributesW(stage.path(file).c_str()), INVALID_FILE_ATTRIBUTES);
    stage.play("L read end_read = waits 1000; A end_read = 1;"
               "W = waits 100;" // whichever semaphore in the directory it is that is read
               "other end_read = 1; W = 1; other try_read = 0; L = waits 100;"
               "W try_read end_write = 01; L = 11;"
               "db.wri lock = 1; A try_write = 0;"
               "db.cri lock = 1; A try_read = waits 100; db.cri kill = ended 197; A = 1");
}

TEST(IpRwSem, PassesOnWhatAnEndedProcessOrADestroyedRecordHeldOrAnnounced)
{
    Stage().play("K read = 1; A write = waits 100; R try_read = 0; A kill = ended 197;"
                 "R read read = 11; W write = waits 100; K kill = ended 197; W = waits 100;"
                 "R destroy = 1; W = 1;"
                 "X write write = waits 1000; L try_read try_write = 00;" // the atomic lock is free
                 "L read = waits 100; W kill = ended 197; X = 11; L = waits 100;"
                 "X destroy = 1; L = 1");
}

TEST(IpRwSem, TakesAgainWhatIsRefusedForAMomentAndEndsWhenItStaysRefused)
{
    const std::string own_mutex = "mutex->m_ref_count > 0", no_file = "_fh != THR_BAD_FILE_HANDLE";
    const struct {
        std::string lock, refused; // and how many are let through before
        int again;
        std::string message;
    } cases[] = {
        {"try_read", ".cri.mtx.flock 0 ", 100, own_mutex},
        {"read", ".rdr.flock 0 ", 10, "sem->m_readers_sem" + no_file},
        {"write", ".cri.mtx.flock 0 ", 100, own_mutex},
        {"write", ".wtr.flock 0 ", 10, "sem->m_writers_sem" + no_file},
        {"write", ".cri.mtx.flock 1 ", 100, own_mutex},
        {"write", ".wri.mtx.flock 0 ", 100, own_mutex},
        {"try_write", ".cri.mtx.flock 0 ", 100, own_mutex},
        {"try_write", ".wtr.flock 0 ", 10, "sem->m_writers_sem" + no_file},
    };
    const std::string others_go_on = "L try_read end_read try_write end_write = 1111;";
    Stage stage;
    std::string who = "a";
    for (const auto &[lock, refused, again, message] : cases) {
        const std::string times = std::to_string(again), once_more = std::to_string(again + 1);
        const std::string refuse = who + " refuse " + refused,
                          end = lock.substr(lock.find('_') + 1);
        stage.play(refuse + times + " " + lock + " pauses end_" + end + " = 1 " + times + " 1;" +
                   refuse + once_more + " " + lock + " = " + message + ";" + others_go_on + who +
                   " go on = ended -1");
        who[0]++;
    }
    stage.play("W refuse .wri.mtx.flock 0 1 try_write try_write = 01;"
               "A refuse .cri.mtx.flock 1 100 read end_read = waits 200; W end_write = 1; A = 11;" +
               others_go_on);
}

} // namespace
