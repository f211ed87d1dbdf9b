// The interprocess mutex and read-write semaphore of thr.dll, among real processes.

#include "support/test.h"

#include <filesystem>

using support::Call;
using support::Gate;
using support::ScratchDir;

namespace
{

// --- processes that obey ------------------------------------------------------------------------

// Static, as a host may have them: the end of the process destroys them, after a report too.
std::unique_ptr<THR_IP_MUTEX_OBJ> mutex;
std::unique_ptr<THR_IP_READ_WRITE_SEMAPHORE> sem;

// What the library meets in such a process: pauses that take no time, and refusals.
struct Gates {
    std::string path;
    int polls, pauses;
    std::string refused; // the end of the names that are refused, as on a Windows volume while a
    int let_through;     // file of that name is being deleted; before that
    int refusals;
} gates;

// A line that comes meanwhile is the number of polls after which to say so.
intptr_t poll(const Call &call)
{
    DWORD sent = 0;
    PeekNamedPipe(GetStdHandle(STD_INPUT_HANDLE), nullptr, 0, nullptr, &sent, nullptr);
    if (sent > 0)
        gates.polls = std::stoi(*support::hear());
    else if (--gates.polls == 0)
        support::say("waits");
    return call.go_on();
}

void pause(DWORD ms)
{
    gates.pauses += ms == 10;
    Sleep(ms == 10 ? 0 : ms);
}

// Whether a file is open and shared with nobody; its holder can't open it either.
bool is_held(const std::string &name)
{
    const std::string path = gates.path + name;
    const std::wstring wide = L"\\\\?\\" + std::wstring(path.begin(), path.end());
    HANDLE opened = CreateFileW(wide.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    return opened == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION;
}

intptr_t create(const Call &call)
{
    const std::wstring path = call.arg<LPCWSTR>(0),
                       suffix(gates.refused.begin(), gates.refused.end());
    if (path.find(L"r.flock") != path.npos && !is_held(".cri.mtx.flock"))
        support::say("not under the atomic lock");
    if (call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle)
        support::say("inherited by a child");
    const size_t start = path.size() - suffix.size();
    if (path.compare(start, path.npos, suffix) != 0 || gates.let_through-- > 0 ||
        gates.refusals-- <= 0)
        return call.go_on();
    SetLastError(ERROR_ACCESS_DENIED);
    return -1;
}

// A listing that breaks off.
intptr_t next(const Call &call)
{
    if (gates.refused != "listing" || gates.refusals-- <= 0)
        return call.go_on();
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

const std::string OWN = "." + std::to_string(GetCurrentProcessId());

// Who has a lock has its file.
const support::Orders ORDERS = {
    {"lock", [](auto &) { return mutex->lock() && is_held(".mtx.flock"); }},
    {"try_lock", [](auto &) { return mutex->try_lock() && is_held(".mtx.flock"); }},
    {"end_lock", [](auto &) { return mutex->unlock(), true; }},
    {"read", [](auto &) { return sem->read_lock(), is_held(OWN + ".rdr.flock"); }},
    {"try_read", [](auto &) { return sem->try_read_lock() && is_held(OWN + ".rdr.flock"); }},
    {"end_read", [](auto &) { return sem->read_unlock(), true; }},
    {"write", [](auto &) { return sem->write_lock(), is_held(OWN + ".wtr.flock"); }},
    {"try_write", [](auto &) { return sem->try_write_lock() && is_held(OWN + ".wtr.flock"); }},
    {"end_write", [](auto &) { return sem->write_unlock(), true; }},
    {"destroy", [](auto &) { return sem.reset(), mutex.reset(), true; }},
    {"pauses", [](auto &) { return std::exchange(gates.pauses, 0); }},
    {"refuse", [](auto &words) {
         return !!(words >> gates.refused >> gates.let_through >> gates.refusals);
     }}};

// A process that obeys. To a number that comes while it waits it says "waits" after as many more
// polls. An internal error is shown until another line comes. The second argument is the path with
// backslashes alone.
ROLE(obeys)
{
    // No Windows enters a directory that is so long, but Wine does.
    auto enter = [](const Call &call) {
        return wcslen(call.arg<LPCWSTR>(0)) < 260 ? call.go_on() : 0;
    };
    Gate entering("SetCurrentDirectoryW", enter), creating("CreateFileW", create);
    Gate listing("FindFirstFileW", poll), going_on("FindNextFileW", next), pausing("Sleep", poll);
    pausing.lead_to(&pause);
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        support::say(message);
        support::hear();
    });
    setvbuf(stdin, nullptr, _IONBF, 0); // so that a line stays in the pipe until it is heard
    gates.path = args[1];
    mutex = std::make_unique<THR_IP_MUTEX_OBJ>(args[0].c_str());
    sem = std::make_unique<THR_IP_READ_WRITE_SEMAPHORE>(args[0].c_str());
    while (auto line = support::hear())
        support::say(support::obey(ORDERS, *line));
    return 0;
}

// A directory whose path is longer than Windows once allowed, and processes that use the mutex and
// the semaphore "db" in it. A process whose name is longer than a letter uses those of its name:
// "other" is long, and "db.cri" and "db.wri" are the mutexes of the semaphore "db".
class Stage : ScratchDir, public support::Scene
{
public:
    Stage() : Scene([this](const std::string &who) { return new_actor(who); })
    {
        m_directory = L"\\\\?\\" + wide_path();
        while (m_directory.size() < 300)
            CreateDirectoryW((m_directory += L"\\with spaces").c_str(), nullptr);
    }
    std::wstring path(const wchar_t *name) { return m_directory + L"\\" + name; }

private:
    support::Child *new_actor(const std::string &who)
    {
        const std::wstring path = m_directory.substr(4) + L"\\";
        std::string plain(path.begin(), path.end());
        plain += who.size() == 1 ? "db" : who == "other" ? std::string(220, 'o') : who;
        std::string slashed = plain;
        slashed[plain.find("\\with")] = '/'; // behind it, backslashes do not split
        return new support::Child("obeys", {who == "L" ? plain : slashed, plain});
    }

    std::wstring m_directory; // begins with the four characters of a long path
};

TEST(IpLocks, CountWhatARecordHolds)
{
    Stage stage;
    for (std::string kind : {"lock", "read", "write"}) {
        const std::string end = "end_" + kind, other = kind == "lock" ? "lock" : "write";
        for (std::string first : {kind, "try_" + kind}) {
            for (std::string second : {kind, "try_" + kind})
                stage.play("A " + first + " " + second + " " + end + " = 1 1 1;" + "B try_" +
                           other + " = 0; A " + end + " = 1;" + "B try_" + other + " end_" + other +
                           " = 1 1");
        }
    }
}

TEST(IpLocks, BrokenPreconditionsAreInternalErrors)
{
    Stage().play("A end_lock = mutex->m_ref_count > 0;"
                 "B end_read = sem->m_readers_ref_count > 0;"
                 "C write end_write end_write = sem->m_writers_ref_count > 0;"
                 // These two would wait for themselves.
                 "D read write = sem->m_readers_ref_count == 0; D go on = ended -1;"
                 "E write read = sem->m_writers_ref_count == 0");
}

TEST(IpLocks, WithoutADirectoryCantBeTaken)
{
    ScratchDir scratch;
    const std::string directory = scratch.file("d"), path = directory + "/db";
    THR_IP_MUTEX bad = thr_ip_mutex_create(path.c_str());
    THR_IP_MUTEX_OBJ object(path.c_str());
    CreateDirectoryA(directory.c_str(), nullptr);
    EXPECT_FALSE(thr_ip_mutex_is_good(bad) || thr_ip_mutex_lock(bad) || object.try_lock());
    EXPECT_FALSE(THR_IP_SCOPED_MUTEX(&object).was_lock_successful());
    thr_ip_mutex_destroy(bad);
}

// --- mutex --------------------------------------------------------------------------------------

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    Stage stage;
    stage.play("A lock lock end_lock = 1 1 1; B lock lock; B 450 = waits;"
               "A kill = ended 197; B = 1 1; C try_lock = 0; B destroy = 1;"
               "C try_lock end_lock = 1 1; C refuse .mtx.flock 0 1 try_lock pauses = 1 0 0;"
               "C refuse .mtx.flock 0 1 lock pauses lock = 1 0 1 1; C kill = ended 197");
    EXPECT_EQ(GetFileAttributesW(stage.path(L"db.mtx.flock").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(IpMutex, GuardsHandTheirLockOver)
{
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    THR_IP_MUTEX_OBJ a(scratch.file("a").c_str()), b(scratch.file("b").c_str());
    auto exists = [&](const char *name) { return std::filesystem::exists(scratch.file(name)); };
    EXPECT_FALSE(Guard(nullptr).was_lock_successful());
    Guard first(&a), second(&b);
    EXPECT_TRUE(Guard(&a).was_lock_successful()) << "the same record: counted";
    {
        Guard third(std::move(first));
        EXPECT_TRUE(third.was_lock_successful() && !first.was_lock_successful());
        EXPECT_TRUE(exists("a.mtx.flock"));
    }
    EXPECT_FALSE(exists("a.mtx.flock")) << "the new owner unlocked";
    first = Guard(&a); // an empty guard can be used again
    EXPECT_TRUE(exists("a.mtx.flock"));
    first = std::move(second);
    EXPECT_TRUE(first.was_lock_successful() && !second.was_lock_successful());
    EXPECT_TRUE(!exists("a.mtx.flock") && exists("b.mtx.flock")) << "its own lock goes first";
    Guard &same = first;
    first = std::move(same);
    EXPECT_FALSE(first.was_lock_successful() || exists("b.mtx.flock")) << "assigned to itself";
}

// --- semaphore ----------------------------------------------------------------------------------

TEST(IpRwSem, ServesReadersTogetherAndWritersBeforeLaterReaders)
{
    Stage stage;
    auto open = [&](const wchar_t *name) {
        return CreateFileW(stage.path(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0,
                           nullptr);
    };
    // By processes that have ended: in nobody's way.
    const wchar_t *const left_over[] = {L"a.1.rdr.flock", L"z.1.rdr.flock", L"c.2.wtr.flock"};
    for (const wchar_t *file : left_over)
        CloseHandle(open(file));
    HANDLE no_lock_file = open(L"b.3.WTR.FLOCK");
    stage.play("L refuse listing 0 1 try_write = 1 0;" // what can't be seen counts as held
               "L refuse .rdr.flock 0 1 try_write = 1 0;"
               "A read = 1; other read = 1; L try_write try_read try_write end_read = 0 1 0 1;"
               "W write; W 450 = waits; L try_write try_read = 0 0");
    for (const wchar_t *file : left_over)
        EXPECT_EQ(GetFileAttributesW(stage.path(file).c_str()), INVALID_FILE_ATTRIBUTES);
    CloseHandle(no_lock_file);
    stage.play("L read end_read; L 50 = waits; A end_read = 1;"
               "W 30 = waits;" // whichever semaphore in the directory it is that is read
               "other end_read = 1; W = 1; other try_read = 0; L 30 = waits;"
               "W try_read end_write = 0 1; L = 1 1;"
               "db.wri lock = 1; A try_write = 0;"
               "db.cri lock = 1; A try_read; A 50 = waits; db.cri kill = ended 197; A = 1");
}

TEST(IpRwSem, PassesOnWhatAnEndedProcessOrADestroyedRecordHeldOrAnnounced)
{
    Stage().play("K read = 1; A write; A 50 = waits; R try_read = 0; A kill = ended 197;"
                 "R read read = 1 1; W write; W 50 = waits; K kill = ended 197; W 30 = waits;"
                 "R destroy = 1; W = 1; X write write; X 50 = waits;"
                 "L try_read try_write = 0 0;" // the atomic lock is free
                 "L read; L 50 = waits; W kill = ended 197; X = 1 1; L 30 = waits;"
                 "X destroy = 1; L = 1");
}

TEST(IpRwSem, TakesAgainWhatIsRefusedForAMomentAndEndsWhenItStaysRefused)
{
    Stage stage;
    const std::string others_go_on = "L try_read end_read try_write end_write = 1 1 1 1;";
    // What is refused after how many are let through, how often it is taken again; the end then.
    auto play = [&](std::string who, std::string lock, std::string refused, int again,
                    std::string error) {
        const std::string refuse = who + " refuse " + refused, times = std::to_string(again);
        stage.play(refuse + times + " " + lock + " pauses end_" + lock.substr(lock.find('_') + 1) +
                   " = 1 1 " + times + " 1;" + refuse + std::to_string(again + 1) + " " + lock +
                   " = " + error + ";" + others_go_on);
    };
    const std::string own_mutex = "mutex->m_ref_count > 0", no_file = "_fh != THR_BAD_FILE_HANDLE";
    play("a", "read", ".rdr.flock 0 ", 10, "sem->m_readers_sem" + no_file);
    play("b", "write", ".wtr.flock 0 ", 10, "sem->m_writers_sem" + no_file);
    play("c", "try_write", ".wtr.flock 0 ", 10, "sem->m_writers_sem" + no_file);
    play("d", "try_write", ".cri.mtx.flock 0 ", 100, own_mutex);
    play("e", "write", ".cri.mtx.flock 1 ", 100, own_mutex);
    play("f", "write", ".wri.mtx.flock 0 ", 100, own_mutex);
    stage.play("W refuse .wri.mtx.flock 0 1 try_write try_write = 1 0 1;"
               "A refuse .cri.mtx.flock 1 100 read end_read; A 30 = waits;"
               "W end_write = 1; A = 1 1 1;" +
               others_go_on);
}

} // namespace
