// The interprocess read-write semaphore of thr.dll, among real processes.
#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using Sem = THR_IP_RW_SEM;
const std::map<std::string, int (*)(Sem)> ORDERS = {
    {"read", [](Sem sem) { return thr_ip_rw_sem_read_lock(sem), 1; }},
    {"write", [](Sem sem) { return thr_ip_rw_sem_write_lock(sem), 1; }},
    {"try_read", &thr_ip_rw_sem_read_try_lock},
    {"try_write", &thr_ip_rw_sem_write_try_lock},
    {"end_read", [](Sem sem) { return thr_ip_rw_sem_read_unlock(sem), 1; }},
    {"end_write", [](Sem sem) { return thr_ip_rw_sem_write_unlock(sem), 1; }},
    {"destroy", [](Sem sem) { return thr_ip_rw_sem_destroy(sem), 1; }}};

// Obeys orders on a semaphore, and says the results of a line of them or the internal error that
// ends it. "null" and "new" change it, "cri" takes its atomic lock, "leaks" counts handles.
ROLE(obeys)
{
    // No Windows enters a directory that is so long, but Wine does.
    auto enter = [](LPCWSTR d) { return wcslen(d) < 260 ? SetCurrentDirectoryW(d) : FALSE; };
    support::ImportPatch patch("SetCurrentDirectoryW", +enter);
    thr_set_report_func([](const char *message, const char *, const char *file, int) {
        support::say(strcmp(file, "thr/thr_interprocess_rw_sem.cpp") == 0 ? message : file);
    });
    Sem sem = thr_ip_rw_sem_create(args[0].c_str());
    const size_t handles = support::live_handle_count();
    while (auto orders = support::hear()) {
        std::string answers, order;
        for (std::istringstream words(*orders); words >> order;) {
            if (ORDERS.count(order))
                answers += std::to_string(ORDERS.at(order)(sem));
            else if (order == "leaks")
                answers += std::to_string(support::live_handle_count() - handles);
            else if (order == "cri")
                thr_ip_mutex_lock(thr_ip_mutex_create((args[0] + ".cri").c_str()));
            else
                sem = order == "new" ? thr_ip_rw_sem_create(args[0].c_str()) : nullptr;
        }
        support::say(answers);
    }
    return 0;
}

// Plays a scene of steps "X orders = answers;", where X is a process, started when it is first
// named; N is one on another path in the directory. The answers are "..." as long as it waits; a
// step without orders hears the rest.
void play(const std::string &scene)
{
    support::ScratchDir scratch;
    std::wstring directory = L"\\\\?\\" + scratch.wide_path();
    while (directory.size() < 300)
        CreateDirectoryW((directory += L"\\with spaces").c_str(), nullptr);
    auto there = [&](const std::wstring &name) {
        return GetFileAttributesW((directory + name).c_str()) != INVALID_FILE_ATTRIBUTES;
    };
    for (const wchar_t *left_over : {L"\\a.1.rdr.flock", L"\\z.1.rdr.flock", L"\\c.2.wtr.flock"})
        CloseHandle(CreateFileW((directory + left_over).c_str(), GENERIC_WRITE, 0, nullptr,
                                CREATE_NEW, 0, nullptr));
    const std::string base(directory.begin() + 4, directory.end());
    std::map<std::string, std::unique_ptr<support::Child>> children;
    std::string name, orders, answers;
    for (std::istringstream steps(scene); steps >> name;) {
        auto &child = children[name];
        if (!child)
            child.reset(new support::Child("obeys", {base + (name == "N" ? "\\other" : "\\db")}));
        std::getline(std::getline(steps, orders, '=') >> std::ws, answers, ';');
        if (orders == " kill ")
            child->kill();
        else if (orders != " ")
            child->write_line(orders);
        const bool reads = orders == " read " && answers == "1" && name != "N";
        const std::wstring file =
            L"\\db." + std::to_wstring(child->pid()) + (reads ? L".rdr.flock" : L".wtr.flock");
        for (int i = 0; (reads || orders == " write ") && !there(file); i++)
            Sleep(i < 10000 ? 1 : throw std::runtime_error("no file for " + name + orders));
        const DWORD patience = answers == "..." ? 50 : support::PATIENCE_MS;
        ASSERT_EQ(child->read_line(patience).value_or("..."), answers) << name << orders;
        const bool has_scanned = orders.find(" try_write try_read ") == 0;
        EXPECT_FALSE(has_scanned && (there(L"\\z.1.rdr.flock") || there(L"\\c.2.wtr.flock")));
    }
}

TEST(IpRwSem, ServesReadersTogetherAndWritersBeforeLaterReaders)
{
    play("A read try_read = 11; N read = 1; L try_write try_read try_write end_read = 0101;"
         "W write = ...; L try_write try_read = 00; L read = ...;"
         "A try_read end_read end_read = 111; W = ...; A end_read = 1; W = ...;"
         "N end_read = 1; W = 1; L = ...; A try_write try_read = 00; N try_read = 0;"
         "W write try_write end_write end_write try_read = 11110; L = ...;"
         "W end_write = 1; L = 1; L end_read try_write end_write leaks = 1110;"
         "M cri = ; A try_read = ...; M kill = ...; A = 1;");
    // What an ended process, or a destroyed record, held or announced is passed on.
    play("K read = 1; A write = ...; R try_read = 0; A kill = ...; R read read = 11;"
         "W write = ...; K kill = ...; W = ...; R destroy = 1; W = 1;"
         "X write = ...; L read = ...; W kill = ...; X = 1; X write = 1; L = ...;"
         "X destroy = 1; L = 1;");
}

TEST(IpRwSem, EndsTheProcessOrThrowsWhereItCanNotWork)
{
    play("A end_read = sem->m_readers_ref_count > 0;"
         "B write end_write end_write = sem->m_writers_ref_count > 0;"
         "C read write = sem->m_readers_ref_count == 0;" // it would wait for itself
         "D write read = sem->m_writers_ref_count == 0;"
         "E read new read = sem->m_readers_sem_fh != THR_BAD_FILE_HANDLE;"
         "F write new write = sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE;");
    for (const auto &order : ORDERS)
        play("A null " + order.first + " = sem;");
    // No name, and every allocation refused. The process would end after the hook, so that throws.
    thr_set_report_func([](const char *text, const char *, const char *, int) { throw text; });
    std::set<std::string> messages;
    for (int nth = -1; nth < 1000; nth++) {
        support::RefusedMalloc refused(nth);
        try {
            thr_ip_rw_sem_destroy(thr_ip_rw_sem_create(nth < 0 ? nullptr : nth == 0 ? "" : "db"));
            break;
        } catch (const char *text) {
            messages.insert(text);
        }
    }
    thr_set_report_func(nullptr);
    EXPECT_EQ(messages, (std::set<std::string>{"filepath && *filepath", "sem", "fullpath", "text",
                                               "mutex", "atomic_lock_id", "writers_lock_id",
                                               "sem->m_writers_sem", "sem->m_readers_sem"}));
    EXPECT_THROW(THR_IP_READ_WRITE_SEMAPHORE("no such/db"),
                 VELKORA_EXCEPTION_DETAIL::PASS_THROUGH_CONSTRUCTOR);
    std::unique_ptr<VELKORA_EXCEPTION> copy;
    try {
        THR_IP_READ_WRITE_SEMAPHORE("no such/\"db\"");
    } catch (const std::exception &) {
    } catch (const VELKORA_EXCEPTION &e) {
        copy.reset(new VELKORA_EXCEPTION(e));
    }
    EXPECT_EQ(copy ? copy->get_errc().get_error_message()[0].m_text : "not by its own type",
              "Failed to create file lock on \"no such/\"db\"\"");
}

// Counts in a file until that has gone, with "?" behind the number while it writes. Says its numbers.
ROLE(counts)
{
    THR_IP_READ_WRITE_SEMAPHORE sem(args[0].c_str());
    std::mt19937 random(std::stoul(args[1]));
    const auto mode = std::ios::in | std::ios::out; // never empties it
    support::say("started");
    for (std::string line = "?"; !line.empty();) {
        const bool writes = random() % 2;
        writes ? sem.write_lock() : sem.read_lock();
        std::getline(std::ifstream(args[0]), line = "");
        const bool counts = writes && !line.empty();
        const std::string number = counts ? std::to_string(std::stoi(line) + 1) : "";
        if (counts)
            std::fstream(args[0], mode) << (line = number + "?");
        Sleep(random() % 16);
        std::string again;
        std::getline(std::ifstream(args[0]), again);
        if (counts)
            std::fstream(args[0], mode) << number << "!";
        writes ? sem.write_unlock() : sem.read_unlock();
        if (counts || again != line)
            support::say(again == line ? number : again + " instead of " + line);
    }
    return 0;
}

TEST(IpRwSem, KeepsAFileWholeWhileProcessesAreKilled)
{
    const unsigned seed = std::random_device()(), KILLS = 12;
    std::mt19937 random(seed);
    support::ScratchDir scratch;
    const std::string path = scratch.file("db");
    std::ofstream(path) << 1000;
    std::vector<std::unique_ptr<support::Child>> children; // the first four run
    for (unsigned i = 0; i < 4 + KILLS; i++) {
        children.emplace_back(new support::Child("counts", {path, std::to_string(random())}));
        EXPECT_EQ(children.back()->read_line(), "started");
        if (i >= 4)
            children.back().swap(children[random() % 4]), children.back()->kill();
    }
    size_t last = 0;
    THR_IP_READ_WRITE_SEMAPHORE sem(path.c_str());
    sem.write_lock();
    std::ifstream(path) >> last;
    EXPECT_TRUE(DeleteFileA(path.c_str()));
    sem.write_unlock();
    std::set<std::string> told;
    for (auto &child : children) {
        EXPECT_GE(child->wait().value_or(-1), 0) << "it hangs or failed";
        while (auto line = child->read_line())
            EXPECT_TRUE(line->size() == 4 && told.insert(*line).second) << *line << " again";
    }
    std::cout << "seed " << seed << ": " << told.size() << " of " << last - 1000 << " told\n";
    EXPECT_TRUE(told.size() > 10 && last - 1000 - told.size() <= KILLS);
    EXPECT_TRUE(RemoveDirectoryA(scratch.path().c_str())) << "a lock file was left behind";
}

} // namespace
