// The interprocess mutex and read-write semaphore of thr.dll, among real processes.
#include "support/test.h"

#include <filesystem>

using namespace support;

namespace
{

// --- processes that obey ------------------------------------------------------------------------

// Static, as a host may have them: the end of the process destroys them, after a report too.
std::unique_ptr<THR_IP_MUTEX_OBJ> mutex;
std::unique_ptr<THR_IP_READ_WRITE_SEMAPHORE> sem;

// What the library meets in such a process: pauses that take no time, and refusals of what has a
// text in its name, after some are let through, as on a Windows volume while such a file is being
// deleted.
struct Gates {
    std::string path, refused;
    int let_through, refusals, polls, pauses;
} gates;

// The error of opening a file of the locks, or 0 where there is none, which is made then. Who has a
// lock file can't open it again either.
DWORD open(const std::string &end)
{
    const std::string path = "\\\\?\\" + gates.path + end;
    const std::wstring wide(path.begin(), path.end());
    SetLastError(0);
    CloseHandle(CreateFileW(wide.c_str(), GENERIC_READ, 7, nullptr, OPEN_ALWAYS, 0, nullptr));
    return GetLastError();
}

const DWORD HELD = ERROR_SHARING_VIOLATION;

// Makes a call on what has that name, unless it is refused.
intptr_t go_on(const Call &call, const std::string &name, intptr_t refusal)
{
    if (name.find(gates.refused) == name.npos || gates.let_through-- > 0 || gates.refusals-- <= 0)
        return call.go_on();
    SetLastError(ERROR_ACCESS_DENIED);
    return refusal;
}

// Each poll of a lock asks for a file. A line that comes meanwhile is the number of files after
// which to say so; 0 ends the process, as another thread may do.
intptr_t create(const Call &call)
{
    DWORD sent = 0;
    PeekNamedPipe(GetStdHandle(STD_INPUT_HANDLE), nullptr, 0, nullptr, &sent, nullptr);
    if (sent > 0 && (gates.polls = std::stoi(*hear())) == 0)
        exit(0);
    if (sent == 0 && --gates.polls == 0)
        say("waits");
    const std::wstring path = call.arg<LPCWSTR>(0);
    if (path.find(L"r.flock") != path.npos && open(".cri.mtx.flock") != HELD)
        say("not under the atomic lock");
    return go_on(call, std::string(path.begin(), path.end()), -1);
}

const std::string OWN = "." + std::to_string(GetCurrentProcessId());

// Who has a lock has its file.
const Orders ORDERS = {
    {"lock", [](auto &) { return mutex->lock() && open(".mtx.flock") == HELD; }},
    {"try_lock", [](auto &) { return mutex->try_lock() && open(".mtx.flock") == HELD; }},
    {"end_lock", [](auto &) { return mutex->unlock(), true; }},
    {"guard", [](auto &) { return THR_IP_SCOPED_MUTEX(mutex.get()).was_lock_successful(); }},
    {"read", [](auto &) { return sem->read_lock(), open(OWN + ".rdr.flock") == HELD; }},
    {"try_read", [](auto &) { return sem->try_read_lock() && open(OWN + ".rdr.flock") == HELD; }},
    {"end_read", [](auto &) { return sem->read_unlock(), true; }},
    {"write", [](auto &) { return sem->write_lock(), open(OWN + ".wtr.flock") == HELD; }},
    {"try_write", [](auto &) { return sem->try_write_lock() && open(OWN + ".wtr.flock") == HELD; }},
    {"end_write", [](auto &) { return sem->write_unlock(), true; }},
    {"destroy", [](auto &) { return sem.reset(), mutex.reset(), true; }},
    {"pauses", [](auto &) { return std::exchange(gates.pauses, 0); }},
    {"make", [](auto &words) { return open(*std::istream_iterator<std::string>(words)); }},
    {"refuse", [](auto &words) {
         return !!(words >> gates.refused >> gates.let_through >> gates.refusals);
     }}};

// A process that obeys. To a number that comes while it waits it says "waits" after as many more
// files. An internal error is shown until another line comes. The second argument is the path with
// backslashes alone.
ROLE(obeys)
{
    // No Windows enters a directory that is so long, but Wine does.
    Gate entering("SetCurrentDirectoryW", [](const Call &call) {
        return wcslen(call.arg<LPCWSTR>(0)) < 260 ? call.go_on() : 0;
    });
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        say(message);
        hear();
    });
    setvbuf(stdin, nullptr, _IONBF, 0); // so that a line stays in the pipe until it is heard
    gates.path = args[1];
    mutex = std::make_unique<THR_IP_MUTEX_OBJ>(args[0].c_str());
    sem = std::make_unique<THR_IP_READ_WRITE_SEMAPHORE>(args[0].c_str());
    Gate creating("CreateFileW", create);
    Gate going_on("FindNextFileW", [](auto &call) { return go_on(call, "listing", FALSE); });
    Gate pausing("Sleep", [](auto &call) { return gates.pauses += DWORD(call.args[0]) == 10; });
    while (auto line = hear())
        say(obey(ORDERS, *line));
    return 0;
}

// A directory whose path has a length that no Windows enters, the least one by default, and
// processes that use the mutex and the semaphore "db" in it. A process whose name is longer than a
// letter uses those of its name: "other" is long, and "db.cri" and "db.wri" are the mutexes of the
// semaphore "db".
struct Stage : ScratchDir, Scene {
    std::string directory = path();

    explicit Stage(size_t length = 260)
        : Scene([this](const std::string &who) {
              const std::string name = who == "other" ? std::string(220, 'o') : who,
                                plain = directory + "\\" + (who.size() == 1 ? "db" : name);
              std::string slashed = plain;
              slashed[path().size()] = '/'; // behind it, backslashes do not split
              return new Child("obeys", {who == "L" ? plain : slashed, plain});
          })
    {
        while (directory.size() < length) {
            directory += "\\" + std::string((length - directory.size() - 2) % 50 + 1, 'd');
            const std::wstring wide(directory.begin(), directory.end());
            CreateDirectoryW((L"\\\\?\\" + wide).c_str(), nullptr);
        }
    }
};

TEST(IpLocks, CountWhatARecordHoldsAndEndWhereThatMustNotBe)
{
    Stage(1024) // the longest path there is
        .play("L lock try_lock lock end_lock end_lock = 1 1 1 1 1; B try_lock = 0;"
              "L end_lock read try_read read end_read end_read = 1 1 1 1 1 1;"
              "B try_lock end_lock try_write = 1 1 0;"
              "L end_read write try_write write end_write end_write = 1 1 1 1 1 1;"
              "B try_write = 0; L end_write = 1; B try_write end_write = 1 1;"
              "A end_lock = mutex->m_ref_count > 0; B end_read = sem->m_readers_ref_count > 0;"
              "L end_write = sem->m_writers_ref_count > 0;"
              // These two would wait for themselves.
              "D read write = sem->m_readers_ref_count == 0; D go on = ended -1;"
              "E write read = sem->m_writers_ref_count == 0");
}

// --- mutex --------------------------------------------------------------------------------------

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    Stage().play("A lock lock end_lock = 1 1 1; B lock lock; B 450 = waits;"
                 "A kill = ended 197; B = 1 1; C try_lock = 0; B destroy = 1;"
                 "C try_lock = 1; D guard; D 50 = waits; C end_lock = 1; D = 1;"
                 "D try_lock destroy = 1 1; C try_lock end_lock = 1 1;"
                 "C refuse .mtx.flock 0 1 try_lock pauses = 1 0 0;"
                 "C refuse .mtx.flock 0 1 lock pauses lock = 1 0 1 1; C kill = ended 197;"
                 "D make .mtx.flock = 0");
}

TEST(IpMutex, GuardsHandTheirLockOverIfThereIsOne)
{
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    THR_IP_MUTEX_OBJ a(scratch.file("a").c_str()), b(scratch.file("b").c_str());
    auto held = [&](const char *name) { return std::filesystem::exists(scratch.file(name)); };
    EXPECT_FALSE(Guard(nullptr).was_lock_successful());
    Guard first(&a), second(std::move(first));
    EXPECT_TRUE(second.was_lock_successful() && !first.was_lock_successful());
    first = Guard(&b);
    EXPECT_TRUE(held("b.mtx.flock")) << "an empty guard can be used again";
    first = std::move(second);
    EXPECT_TRUE(first.was_lock_successful() && !second.was_lock_successful());
    EXPECT_TRUE(held("a.mtx.flock") && !held("b.mtx.flock")) << "it let its own lock go";
}

// --- semaphore ----------------------------------------------------------------------------------

TEST(IpRwSem, ServesReadersTogetherAndWritersBeforeLaterReaders)
{
    Stage().play("A read = 1; other read = 1; L try_write try_read try_write end_read = 0 1 0 1;"
                 "W write; W 450 = waits; L try_write try_read = 0 0;"
                 "L read end_read; L 50 = waits; A end_read = 1;"
                 "W 30 = waits;" // whichever semaphore in the directory it is that is read
                 "other end_read = 1; W = 1; other try_read = 0; L 30 = waits;"
                 "W try_read end_write = 0 1; L = 1 1;"
                 "db.wri lock = 1; A try_write = 0; B write; B 50 = waits; B 0 = ended 0;"
                 "db.cri lock = 1; A try_read; A 50 = waits; db.cri kill = ended 197; A = 1");
}

TEST(IpRwSem, LooksAtEachLockFileOfItsDirectory)
{
    // Those of processes that have ended are in nobody's way. What can't be seen counts as held.
    Stage().play("A make .1.rdr.flock make z.1.rdr.flock read = 0 0 1; L try_write = 0;"
                 "A make .1.rdr.flock make z.1.rdr.flock make .2.wtr.flock = 0 0 0;"
                 "A make .3.WTR.FLOCK = 0; L try_read end_read = 1 1;"
                 "A make .2.wtr.flock make .3.WTR.FLOCK end_read = 0 183 1;"
                 "L refuse listing 0 1 try_write = 1 0;"
                 "L make .1.rdr.flock refuse .rdr.flock 0 1 try_write = 0 1 0;"
                 "L try_write = 1");
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
    const std::string no_file = "_sem_fh != THR_BAD_FILE_HANDLE";
    // the lock, what is refused after how many pass; how often it is taken again; the end
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {"read", ".rdr.flock 0", 10, "sem->m_readers" + no_file},
        {"write", ".wtr.flock 0", 10, "sem->m_writers" + no_file},
        {"try_write", ".wtr.flock 0", 10, "sem->m_writers" + no_file},
        {"try_write", ".cri.mtx.flock 0", 100, "mutex->m_ref_count > 0"},
        {"write", ".cri.mtx.flock 1", 100, "mutex->m_ref_count > 0"},
        {"write", ".wri.mtx.flock 0", 100, "mutex->m_ref_count > 0"}};
    for (const auto &[lock, refused, times, error] : cases) {
        const std::string refuse = " refuse " + refused + " ", again = std::to_string(times);
        Stage().play("A" + refuse + again + " " + lock + " pauses destroy = 1 1 " + again + " 1;" +
                     "B" + refuse + std::to_string(times + 1) + " " + lock + " = " + error +
                     ";L try_read end_read try_write end_write = 1 1 1 1");
    }
    Stage().play("W refuse .wri.mtx.flock 0 1 try_write try_write = 1 0 1;"
                 "A refuse .cri.mtx.flock 1 100 read; A 30 = waits; W end_write = 1; A = 1 1");
}

} // namespace
