// Whole-process tests of the asynchronous multi-client server mode (PAS):
// instances started on one shared listener, woken one accept at a time as
// the supervisor does, clients on loopback addresses of their own, and the
// router's part played by the test.
#include <signal.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "ModeFixture.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

using comptest::At;
using comptest::Frame;
using comptest::ReadFrame;
using comptest::Send;

constexpr int kRoute = 40;
constexpr const char* kReady = "TCPPAS working";

// What one instance put on queue 7: a data message or a notification.
struct ToTranp {
    std::string header, body;
    std::string code() const { return body.size() >= 4 && At<uint16_t>(header.data(), 2) == 1 ? body.substr(0, 4) : ""; }
    std::string ip() const { return std::string(header.data() + comp::plat::kIp); }
    int32_t fd() const { return At<int32_t>(header.data(), comp::plat::kSock); }
    explicit operator bool() const { return !header.empty(); }
};

class PasTest : public comptest::ModeTest {
protected:
    // `count` instances of route 40 on one shared listener; heartbeats off
    // unless the overrides say otherwise.
    void StartPas(comptest::RouteRow overrides = {}, int count = 1) {
        OpenSharedListener();
        comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(sharedPort), "0");
        row["BEATSWITCH"] = "0";
        StartMode("SysTCPPAS", row, overrides, kReady);
        idx = {c};
        for (int i = 2; i <= count; ++i) idx.push_back(StartInstance(i, kReady));
    }
    pid_t Pid(size_t k) const { return comp(idx.at(k)).pid; }
    // A client from address `from` that instance k accepts.
    comp::UniqueFd Arrive(const std::string& from, size_t k = 0) {
        comp::UniqueFd s = comptest::Connect(sharedPort, from);
        EXPECT_TRUE(s.valid());
        Wake(k);
        EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpAccepted, 3000), 0) << "no accept report" << AllLogs();
        return s;
    }
    // A client that instance k accepted and announced with N001.
    comp::UniqueFd Connected(const std::string& from, size_t k = 0) {
        comp::UniqueFd s = Arrive(from, k);
        ToTranp n = Next(k);
        EXPECT_EQ(n.code(), "N001") << AllLogs();
        EXPECT_EQ(n.ip(), from);
        return s;
    }
    // The next message instance k put on queue 7 (empty when none came).
    ToTranp Next(size_t k = 0, int ms = 3000) {
        int len = ReadToTranp(buf.get(), Pid(k), ms);
        if (len < comp::kPlatHdrLen) return {};
        return {std::string(buf->caText, comp::kPlatHdrLen),
                std::string(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen)};
    }
    // TranP's message for instance k, addressed by descriptor (0: by address).
    void ToClient(size_t k, int32_t fd, const std::string& ip, const std::string& body) {
        comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), 0, 7, 7, kRoute, kRoute, fd, fd, 0, {}, {}, 'M', {}};
        std::memcpy(h.ip, ip.data(), std::min<size_t>(ip.size(), 16));
        const std::string text = h.bytes() + body;
        DeliverToComp(Pid(k), comp::kFifoPidNotify, std::to_string(Pid(k)), {text.begin(), text.end()});
    }
    std::string ConnLog(const std::string& ip) const {
        return comptest::ReadFile(run.file("runs/log/com_route40_" + ip + ".log"));
    }
    // Whether the registry names pid as the owner of ip.
    pid_t Owner(const std::string& ip) {
        EXPECT_EQ(SysConnectMem(1, 2), 0);
        ConnNode node{};
        pid_t owner = SysGetPidByRouteidIp("40", ip.c_str(), &node);
        SysConnRegDetach();
        return owner;
    }
    // An instance made to stop (SIGKILL), and reaped.
    void Kill(size_t k) {
        kill(Pid(k), SIGKILL);
        EXPECT_EQ(WaitComp(idx.at(k), 3000), -SIGKILL - 100);
    }
    // Two instances on a clock ten times as fast: instance 0 holds 127.0.0.2
    // and is stopped, and a newcomer from that address arrives at instance 1,
    // which asks instance 0. False when libfaketime is missing.
    bool AskStoppedOwner(comp::UniqueFd* held, comp::UniqueFd* newcomer) {
        compEnv = FastClock(10);
        if (compEnv.empty()) return false;
        StartPas({{"IDLETIMEOUT", "3000"}}, 2);
        *held = Connected("127.0.0.2", 0);
        kill(Pid(0), SIGSTOP);
        *newcomer = Arrive("127.0.0.2", 1);
        return true;
    }
    bool Serves(size_t k, const std::string& from) {
        comp::UniqueFd s = Connected(from, k);
        EXPECT_TRUE(Send(s.get(), Frame("ping")));
        return Next(k).body == Frame("ping");
    }
    std::vector<size_t> idx;
};

TEST_F(PasTest, client_is_registered_announced_and_its_messages_flow_both_ways) {
    StartPas();
    comp::UniqueFd s = Connected("127.0.0.2");
    EXPECT_EQ(Owner("127.0.0.2"), pid);

    ASSERT_TRUE(Send(s.get(), Frame("first") + Frame("second")));
    ToTranp a = Next(), b = Next();
    EXPECT_EQ(a.body, Frame("first"));
    EXPECT_EQ(b.body, Frame("second"));
    const int fd = a.fd();
    comptest::PlatHdr want{64 + 9, 0, pid, pid, kRoute, kRoute, fd, fd, comptest::LocalPort(s.get()),
                           "127.0.0.2", "127.0.0.2", 'M', {}};
    EXPECT_EQ(a.header, want.bytes());

    ToClient(0, fd, "127.0.0.2", Frame("by fd"));
    EXPECT_EQ(ReadFrame(s.get(), 3000), Frame("by fd"));
    ToClient(0, 0, "127.0.0.2", Frame("by ip"));
    EXPECT_EQ(ReadFrame(s.get(), 3000), Frame("by ip")) << AllLogs();

    s.reset();
    ToTranp n = Next();
    EXPECT_EQ(n.code(), "N003");
    EXPECT_EQ(n.ip(), "127.0.0.2");
    EXPECT_EQ(Owner("127.0.0.2"), -2) << "the close removed the registry entry";
    EXPECT_TRUE(AwaitCount([&] { return ConnLog("127.0.0.2"); }, "END<<<", 1)) << "the closing banner comes last";
    const std::string log = ConnLog("127.0.0.2");
    for (const char* line : {"BEGIN>>>", "N001 to Tranp succ", "server rcv net,len[9]", "server write to queue,len 73",
                             "write to net.len=9", "N003 to tranp succ", "connection End ---", "END<<<"})
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
}

TEST_F(PasTest, client_heartbeat_is_echoed_and_never_reaches_tranp) {
    StartPas();
    comp::UniqueFd s = Connected("127.0.0.2");
    ASSERT_TRUE(Send(s.get(), Frame("0602beat")));
    EXPECT_EQ(ReadFrame(s.get(), 3000), Frame("0602beat"));
    EXPECT_FALSE(Next(0, 300)) << "a heartbeat is not forwarded";
}

TEST_F(PasTest, heartbeats_go_to_every_connection_on_their_interval) {
    std::filesystem::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    StartPas({{"BEATSWITCH", "1"}, {"BEATINTERVAL", "1"}});
    comp::UniqueFd s = Connected("127.0.0.2");
    // The first goes out at once (no heartbeat was ever sent), the next once
    // more than a second has passed.
    auto beat = [&](int ms) {
        char b[6] = {};
        timeval tv{ms / 1000, (ms % 1000) * 1000};
        setsockopt(s.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return recv(s.get(), b, sizeof b, MSG_WAITALL) == sizeof b ? std::string(b, sizeof b) : "";
    };
    EXPECT_EQ(beat(1000), "BEAT40");
    const int64_t t0 = kit::NowMs();
    EXPECT_EQ(beat(4000), "BEAT40");
    EXPECT_GE(kit::NowMs() - t0, 900) << "the second came too early";
    EXPECT_NE(ConnLog("127.0.0.2").find("send beat heart msg to 127.0.0.2"), std::string::npos);
}

TEST_F(PasTest, silent_client_is_closed_after_the_idle_timeout) {
    StartPas({{"IDLETIMEOUT", "1"}});
    comp::UniqueFd s = Connected("127.0.0.2");
    EXPECT_TRUE(Closes(s.get(), 4000));
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_NE(ConnLog("127.0.0.2").find("time out and close"), std::string::npos);
    EXPECT_TRUE(Serves(0, "127.0.0.3"));
}

TEST_F(PasTest, garbage_and_negative_lengths_cost_only_their_connection) {
    StartPas();
    comp::UniqueFd garbage = Connected("127.0.0.2");
    comp::UniqueFd negative = Connected("127.0.0.3");
    ASSERT_TRUE(Send(garbage.get(), "abcd"));    // no digits: a length of 0, a message too short for its type
    ASSERT_TRUE(Send(negative.get(), "-005"));   // a negative length
    EXPECT_TRUE(Closes(garbage.get(), 3000));
    EXPECT_TRUE(Closes(negative.get(), 3000));
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_NE(ConnLog("127.0.0.2").find("get msgtype error"), std::string::npos);
    EXPECT_NE(ConnLog("127.0.0.3").find("SysTcpRecvMsg error"), std::string::npos);
    EXPECT_TRUE(Serves(0, "127.0.0.4"));
}

// Resident memory of a process in KiB, 0 when unknown.
long RssKiB(pid_t p) {
    std::istringstream status(comptest::ReadFile("/proc/" + std::to_string(p) + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

// Peers that announce the largest message the framing takes (65,535 bytes)
// and then trickle: comp keeps no part of a message between passes (the
// read gives up after three empty retries 1 ms apart), so each costs its
// connection at once, long before its next byte, and no memory. A held
// connection that has sent nothing costs its socket and a table row made
// at start. The figures are printed for the operator documentation.
TEST_F(PasTest, trickling_peers_announcing_65535_bytes_are_closed_at_once_and_cost_no_memory) {
    constexpr int kPeers = 64;
    StartPas({{"HEADERLEN", "2"}, {"MSGLENGETLEN", "2"}, {"MSGLENGETTYPE", "2"}, {"IDLETIMEOUT", "300"}});
    const long start = RssKiB(pid);
    ASSERT_GT(start, 0);
    long held = 0;
    // One burst of peers from 127.0.<net>.x: accepted and held, then each
    // announces 65,535 bytes and sends one. Returns the milliseconds until
    // the last of them was closed.
    auto burst = [&](int net) {
        std::vector<comp::UniqueFd> peers;
        const long before = RssKiB(pid);
        for (int i = 0; i < kPeers; ++i)
            peers.push_back(Connected("127.0." + std::to_string(net) + "." + std::to_string(i + 1)));
        if (net == 1) held = RssKiB(pid) - before;   // rows touched for the first time
        const int64_t sent = kit::NowMs();
        for (auto& s : peers) EXPECT_TRUE(Send(s.get(), std::string("\xff\xff", 2) + "z"));
        for (auto& s : peers) EXPECT_TRUE(Closes(s.get(), 3000));
        const int64_t took = kit::NowMs() - sent;
        for (int i = 0; i < kPeers; ++i) EXPECT_EQ(Next().code(), "N003") << i << AllLogs();
        return took;
    };
    const int64_t first = burst(1);
    const long afterFirst = RssKiB(pid);
    const int64_t second = burst(2);
    const long afterSecond = RssKiB(pid);

    EXPECT_LT(std::max(first, second), 1000) << "every peer is closed before its next byte would come";
    EXPECT_NE(ConnLog("127.0.1.1").find("SysTcpRecvMsg error"), std::string::npos);
#ifndef __SANITIZE_ADDRESS__   // the sanitizer's quarantine holds freed memory back
    EXPECT_LT(afterSecond - afterFirst, 256) << "KiB grown over the second burst of " << kPeers;
#endif
    std::printf("%d held connections of the first burst: %+ld KiB resident (%.0f B each); trickling peers closed within %lld and %lld ms;"
                " resident after the first burst %+ld KiB, after the second %+ld KiB\n",
                kPeers, held, held * 1024.0 / kPeers, static_cast<long long>(first), static_cast<long long>(second),
                afterFirst - start, afterSecond - start);
    comp::UniqueFd next = Connected("127.0.3.1");
    const std::string ping = std::string("\0\x08", 2) + "pingpong";
    ASSERT_TRUE(Send(next.get(), ping));
    EXPECT_EQ(Next().body, ping) << "the process serves on";
}

TEST_F(PasTest, tranp_messages_for_gone_reused_or_unknown_targets_are_dropped) {
    StartPas();
    comp::UniqueFd first = Connected("127.0.0.2");
    ASSERT_TRUE(Send(first.get(), Frame("mine")));
    const int fd = Next().fd();
    first.reset();
    EXPECT_EQ(Next().code(), "N003");

    ToClient(0, fd, "127.0.0.2", Frame("late"));
    EXPECT_TRUE(Logged({"had closed"})) << AllLogs();
    comp::UniqueFd other = Connected("127.0.0.3");   // takes the same descriptor
    ToClient(0, fd, "127.0.0.2", Frame("stale"));
    EXPECT_TRUE(Logged({"was replaced [127.0.0.2->127.0.0.3]"})) << AllLogs();
    ToClient(0, 0, "127.0.0.9", Frame("nobody"));
    EXPECT_TRUE(Logged({"didn't find the original connection"}));
    EXPECT_NE(ConnLog("127.0.0.9").find("not found fd for[127.0.0.9]"), std::string::npos);

    ToClient(0, 0, "127.0.0.3", Frame("yours"));
    EXPECT_EQ(ReadFrame(other.get(), 3000), Frame("yours")) << "the other client got nothing else first";
}

TEST_F(PasTest, second_connection_from_an_address_closes_the_first_and_is_refused) {
    StartPas();
    comp::UniqueFd first = Connected("127.0.0.2");
    comp::UniqueFd second = Arrive("127.0.0.2");
    EXPECT_TRUE(Closes(first.get(), 3000));
    EXPECT_TRUE(Closes(second.get(), 3000));
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_TRUE(Logged({"a frequent connection from [127.0.0.2] was refused"}));
    EXPECT_NE(ConnLog("127.0.0.2").find("double connection request arriving"), std::string::npos);
    EXPECT_TRUE(Serves(0, "127.0.0.2")) << "the third attempt is accepted";
}

// The address arrives at each instance in turn: every arrival at another
// instance makes the owner close, the newcomer is refused, the next is taken.
TEST_F(PasTest, one_connection_per_address_across_three_instances) {
    StartPas({}, 3);
    comp::UniqueFd held = Connected("127.0.0.2", 0);
    for (size_t k : {1u, 2u, 0u}) {
        const size_t owner = (k + 2) % 3;
        comp::UniqueFd refused = Arrive("127.0.0.2", k);
        EXPECT_TRUE(Closes(held.get(), 3000)) << "owner " << owner << " closes its connection";
        EXPECT_TRUE(Closes(refused.get(), 3000));
        EXPECT_EQ(Next(owner).code(), "N003");
        EXPECT_EQ(Owner("127.0.0.2"), -2);
        held = Connected("127.0.0.2", k);
        EXPECT_EQ(Owner("127.0.0.2"), Pid(k));
    }
    EXPECT_NE(ConnLog("127.0.0.2").find("need close"), std::string::npos);
}

// While the asker waits for an owner that cannot answer, it serves nothing
// else; after ten seconds of its clock it gives up and closes the newcomer.
TEST_F(PasTest, busy_owner_leaves_the_newcomer_refused_and_its_late_answer_is_set_aside) {
    comp::UniqueFd held, newcomer;
    if (!AskStoppedOwner(&held, &newcomer)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    EXPECT_TRUE(Closes(newcomer.get(), 5000));
    EXPECT_TRUE(Logged({"didn't recv msg over 10s"}));
    EXPECT_TRUE(Logged({"checkip err"}));
    kill(Pid(0), SIGCONT);
    // The owner serves the request late: its old connection goes and its
    // answer waits on the queue for the asker.
    EXPECT_TRUE(Closes(held.get(), 3000));
    EXPECT_EQ(Next(0).code(), "N003");

    // The next question the asker has finds that answer first and parks it.
    comp::UniqueFd other = Connected("127.0.0.3", 0);
    comp::UniqueFd again = Arrive("127.0.0.3", 1);
    EXPECT_TRUE(Closes(other.get(), 3000));
    EXPECT_TRUE(Closes(again.get(), 3000));
    EXPECT_TRUE(Logged({"msg err. real[127.0.0.2] expect[127.0.0.3]"})) << AllLogs();
    EXPECT_TRUE(Logged({"resave to queue,len=20"}));
    QueueMsg* m = buf.get();
    m->lMsgType = Pid(1);
    EXPECT_EQ(msgrcv(QueueId(comp::kQueuePasAnswer), m, sizeof m->caText, Pid(1), IPC_NOWAIT), 20)
        << "the parked answer is back on the queue";
    EXPECT_STREQ(m->caText + 4, "127.0.0.2");
}

// The dead owner's entry and FIFO stay until its supervisor removes them:
// meanwhile every newcomer from the address waits for an answer that never
// comes and is refused, and the asking process serves on.
TEST_F(PasTest, owner_killed_while_asked_costs_the_newcomer_until_its_entry_is_removed) {
    comp::UniqueFd held, newcomer;
    if (!AskStoppedOwner(&held, &newcomer)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    ASSERT_TRUE(AwaitCount([&] { return CompTraceLog(idx[1]); }, "notify " + std::to_string(Pid(0)), 1));
    Kill(0);
    EXPECT_TRUE(Closes(newcomer.get(), 5000));
    EXPECT_TRUE(Logged({"checkip err"}));
    EXPECT_EQ(Owner("127.0.0.2"), Pid(0));
    comp::UniqueFd again = Arrive("127.0.0.2", 1);
    EXPECT_TRUE(Closes(again.get(), 5000)) << "nobody answers for the dead owner";
    EXPECT_TRUE(AwaitCount([&] { return AllLogs(); }, "checkip err", 2, 5000));
    // The supervisor's clean-up of the dead process lets the address in again.
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    DeleteBusyByPid(Pid(0));
    SysConnRegDetach();
    EXPECT_TRUE(Serves(1, "127.0.0.2")) << AllLogs();
}

TEST_F(PasTest, full_peer_answer_queue_ends_the_owner_and_the_asker_gives_up) {
    compEnv = FastClock(10);
    if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartPas({{"IDLETIMEOUT", "3000"}}, 2);
    const int q = QueueId(comp::kQueuePasAnswer);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(q, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 20;
    ASSERT_EQ(msgctl(q, IPC_SET, &ds), 0);
    struct {
        long type;
        char text[20];
    } filler{1, {}};
    ASSERT_EQ(msgsnd(q, &filler, sizeof filler.text, IPC_NOWAIT), 0);

    comp::UniqueFd held = Connected("127.0.0.2", 0);
    comp::UniqueFd newcomer = Arrive("127.0.0.2", 1);
    EXPECT_TRUE(Closes(held.get(), 3000));
    EXPECT_EQ(WaitComp(idx[0], 5000), 0) << "the owner cannot answer and quits";
    EXPECT_TRUE(Closes(newcomer.get(), 5000));
    EXPECT_TRUE(Logged({"checkip err"}));
    EXPECT_TRUE(Serves(1, "127.0.0.2"));
}

TEST_F(PasTest, descriptor_beyond_max_com_num_is_refused) {
    vars["MAX_COM_NUM"] = "16";
    StartPas();
    std::vector<comp::UniqueFd> held;
    for (int i = 2; i < 20 && !Logged({"Too many communication node"}, 0); ++i) {
        comp::UniqueFd s = Arrive("127.0.0." + std::to_string(i));
        if (Next(0, 500).code() == "N001") held.push_back(std::move(s));
        else EXPECT_TRUE(Closes(s.get(), 3000));
    }
    ASSERT_TRUE(Logged({"Too many communication node"}));
    held.pop_back();
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_TRUE(Serves(0, "127.0.0.30"));
}

TEST_F(PasTest, full_registry_makes_the_registration_fail_and_the_process_quit) {
    StartPas();
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    int saved = 0;
    while (SysSaveInfo("41", "10.0.0.1", 1, 1, 1) >= 0) ++saved;
    SysConnRegDetach();
    ASSERT_EQ(saved, comp::kRegistryNodes);
    comp::UniqueFd s = Arrive("127.0.0.2");
    ToTranp n = Next();
    EXPECT_EQ(n.code(), "N003") << "the connection is announced closed";
    EXPECT_TRUE(Closes(s.get(), 3000));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_NE(ConnLog("127.0.0.2").find("SysRegConnection error"), std::string::npos);
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0);
}

// A process that dies holding the registry lock gives it back through the
// semaphore's undo; PAS, waiting on the lock meanwhile, goes on.
TEST_F(PasTest, registry_lock_of_a_killed_process_is_given_back) {
    StartPas();
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    char *hdr = nullptr, *seg = nullptr;
    ASSERT_EQ(attach(&hdr, &seg, nullptr), 0);
    const int lockSet = reinterpret_cast<ConnListHeader*>(hdr)->iLockSet;
    DetachShmem(seg);
    SysConnRegDetach();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    if (holder == 0) {
        SysP(lockSet, 0);
        (void)!write(ready[1], "1", 1);
        pause();
        _exit(0);
    }
    char one;
    ASSERT_EQ(read(ready[0], &one, 1), 1);
    close(ready[0]);
    close(ready[1]);
    comp::UniqueFd s = Arrive("127.0.0.2");
    EXPECT_FALSE(Next(0, 500)) << "PAS waits for the lock";
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(Next().code(), "N001");
    EXPECT_TRUE(Serves(0, "127.0.0.3"));
}

TEST_F(PasTest, accept_command_without_a_waiting_client_is_reported_and_harmless) {
    StartPas();
    Wake();
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpAccepted, 3000), 0);
    EXPECT_TRUE(Logged({"zzz don't expect here"}));
    EXPECT_TRUE(Logged({"iSockAccept error"}));
    EXPECT_TRUE(Serves(0, "127.0.0.2"));
}

TEST_F(PasTest, still_alive_line_comes_after_twenty_heartbeat_intervals) {
    compEnv = FastClock(10);
    if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartPas({{"BEATINTERVAL", "1"}});
    EXPECT_FALSE(Logged({"still alive"}, 1000)) << "not before 20 s of its clock";
    EXPECT_TRUE(Logged({"oh,i'm still alive"}, 5000));
}

TEST_F(PasTest, input_pre_handling_can_answer_and_consume) {
    std::filesystem::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    StartPas({{"INPREHDL", "PreReplyConsume"}});
    comp::UniqueFd s = Connected("127.0.0.2");
    ASSERT_TRUE(Send(s.get(), Frame("asking")));
    EXPECT_EQ(comptest::ReadUntilClose(s.get(), 500), "ACK");
    EXPECT_FALSE(Next(0, 300));
}

TEST_F(PasTest, quit_command_removes_both_fifos_and_the_registry_entries) {
    StartPas();
    comp::UniqueFd s = Connected("127.0.0.2");
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
    for (const char* kind : {"1_", "4_"})
        EXPECT_FALSE(std::filesystem::exists(run.file(std::string("fifo/") + kind + std::to_string(pid))));
    EXPECT_EQ(Owner("127.0.0.2"), -2);
}

// compkit status shows each instance of the route with the connections the
// registry names for it, and the depth of every queue.
TEST_F(PasTest, compkit_status_lists_the_connections_of_each_instance) {
    StartPas({}, 2);
    comp::UniqueFd a = Connected("127.0.0.2", 0);
    comp::UniqueFd b = Connected("127.0.0.3", 1);
    ASSERT_TRUE(Send(b.get(), Frame("queued")));
    ASSERT_TRUE(AwaitCount([&] { return ConnLog("127.0.0.3"); }, "server write to queue", 1));
    kit::SpawnOptions plan;
    plan.path = comptest::CompkitBinary();
    plan.argv = {plan.path, "status", run.path()};
    plan.outputPath = run.file("status.out");
    std::string why;
    pid_t st = kit::Spawn(plan, &why);
    ASSERT_GT(st, 0) << why;
    int status = -1;
    ASSERT_TRUE(kit::WaitChild(st, 5000, &status));
    const std::string out = comptest::ReadFile(plan.outputPath);
    for (size_t k : {0u, 1u}) {
        const std::string head = "    instance " + std::to_string(k + 1) + " pid " + std::to_string(Pid(k)) +
                                 " running (SysTCPPAS), 1 connection\n      127.0.0." + std::to_string(k + 2) + ":";
        EXPECT_NE(out.find(head), std::string::npos) << head << "\n" << out;
    }
    EXPECT_NE(out.find("  route 40\n"), std::string::npos) << out;
    EXPECT_NE(out.find(": 1 messages, 74 bytes"), std::string::npos) << "queue 7 holds the message" << out;
    EXPECT_NE(out.find("  9  Q9 "), std::string::npos) << out;
    EXPECT_NE(out.find("  10 Q10"), std::string::npos) << out;
}

}  // namespace
