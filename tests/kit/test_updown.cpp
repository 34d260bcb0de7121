// compkit up and down: what they create and remove, and the state they leave
// the registry lock in.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "Platform.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "kit/KitIpc.h"

namespace {

// "msg|sem|shm key" of every System V object whose key is one of this test
// process's (IpcKeys puts the pid into bits 8..27), so parallel tests do not
// disturb the comparison.
std::set<std::string> OwnIpcObjects() {
    std::set<std::string> out;
    const unsigned mine = 0x50000000u | ((static_cast<unsigned>(getpid()) & 0xFFFFFu) << 8);
    for (const char* kind : {"msg", "sem", "shm"}) {
        std::ifstream in(std::string("/proc/sysvipc/") + kind);
        std::string line;
        std::getline(in, line);  // column titles
        while (std::getline(in, line)) {
            long key = 0;
            std::istringstream(line) >> key;
            if ((static_cast<unsigned>(key) & 0xFFFFFF00u) == mine) out.insert(std::string(kind) + " " + std::to_string(key));
        }
    }
    return out;
}

class UpDown : public comptest::PlatformTest {
protected:
    void WriteConfig() {
        run.write("etc/sys.cfg", SysCfgText(1048576));
        run.write("etc/tables.cfg", "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024\n");
    }
    bool Up() { return kit::PlatformUp(run.path(), &notes, &why); }
    bool Down() { return kit::PlatformDown(run.path(), &notes, &why); }
    std::vector<std::string> notes;
    std::string why;
};

TEST_F(UpDown, down_removes_everything_up_created_and_the_fifos) {
    WriteConfig();
    const auto before = OwnIpcObjects();
    ASSERT_TRUE(Up()) << why;
    EXPECT_EQ(OwnIpcObjects().size(), before.size() + 6 + 1 + 2);  // queues, lock set, segments
    // A full queue and an attached segment are removed all the same.
    auto msg = std::make_unique<QueueMsg>();
    msg->lMsgType = 1;
    while (MsgWriteNoWait(QueueId(7), msg.get(), 4096) == 0) {
    }
    kit::Resources res;
    ASSERT_TRUE(kit::ReadResources(run.path(), &res, &why)) << why;
    char* attached = pcShmAt(shmget(res.shms[1].iKey, 0, 0));
    ASSERT_NE(attached, nullptr);
    int fifo = iOpenFIFO("4242", 1);
    ASSERT_GE(fifo, 0);
    close(fifo);
    run.write("fifo/notes.txt", "kept");

    ASSERT_TRUE(Down()) << why;
    SysShmdt(attached);
    EXPECT_EQ(OwnIpcObjects(), before);
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/1_4242")));
    EXPECT_TRUE(std::filesystem::exists(run.file("fifo/notes.txt"))) << "only FIFOs are removed";
    EXPECT_FALSE(std::filesystem::exists(kit::ObjectsFile(run.path())));
}

TEST_F(UpDown, up_refuses_an_object_that_exists_and_leaves_nothing_of_its_own) {
    WriteConfig();
    ASSERT_TRUE(Up()) << why;
    const auto upState = OwnIpcObjects();
    EXPECT_FALSE(Up());
    EXPECT_NE(why.find("compkit down first"), std::string::npos) << why;
    ASSERT_TRUE(Down()) << why;

    // Someone else's queue under the key of queue 8.
    const auto before = OwnIpcObjects();
    std::string cfg = run.read("etc/sys.cfg");
    const size_t at = cfg.find("Q8 8 ") + 5;
    const key_t key8 = static_cast<key_t>(std::stol(cfg.substr(at)));
    const int foreign = msgget(key8, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(foreign, 0);
    EXPECT_FALSE(Up());
    EXPECT_NE(why.find("exists already"), std::string::npos) << why;
    auto after = OwnIpcObjects();
    EXPECT_EQ(after.size(), before.size() + 1) << "only the foreign queue";
    EXPECT_EQ(msgget(key8, 0), foreign);
    EXPECT_NE(upState.size(), 0u);
}

TEST_F(UpDown, registry_lock_is_free_after_the_up_process_has_ended) {
    WriteConfig();
    const pid_t child = fork();
    if (child == 0) _exit(Up() ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    kit::Resources res;
    ASSERT_TRUE(kit::ReadResources(run.path(), &res, &why)) << why;
    const int lockSet = semget(res.sems[0].iKey, 0, 0);
    ASSERT_GE(lockSet, 0);
    // Formatting released the lock with undo-on-exit; the undo must not take
    // it again when the process that ran `up` ends.
    EXPECT_EQ(SemGetValue2(lockSet, 0), 1);
    EXPECT_TRUE(Down()) << why;
}

TEST_F(UpDown, down_without_a_record_removes_what_sys_cfg_names) {
    WriteConfig();
    const auto before = OwnIpcObjects();
    ASSERT_TRUE(Up()) << why;
    std::filesystem::remove(kit::ObjectsFile(run.path()));
    ASSERT_TRUE(Down()) << why;
    EXPECT_EQ(OwnIpcObjects(), before);
}

TEST_F(UpDown, queues_hold_a_megabyte_when_running_as_root) {
    if (geteuid() != 0) GTEST_SKIP() << "raising msg_qbytes needs root";
    WriteConfig();
    ASSERT_TRUE(Up()) << why;
    msqid_ds ds{};
    ASSERT_EQ(msgctl(QueueId(8), IPC_STAT, &ds), 0);
    EXPECT_GE(ds.msg_qbytes, static_cast<msglen_t>(kit::kNeedMsgMnb));
    EXPECT_TRUE(Down()) << why;
}

}  // namespace
