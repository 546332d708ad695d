// Bundle membership of IFH entries: a member joining, changing and leaving
// its bundle, the bundle's member count, and the out-of-resource counters
// that follow members in and out - also with two processes at once, and
// with writers killed between a member's change and its bundle's.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "card.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "tabra.h"
#include "vorn_os.h"

namespace {

using namespace card;

constexpr u32 kBundle = 0xB300, kMember = 0x1300;
constexpr u16 kMemberPort = (3 << 10) | 5;  // port_hi 3, port_lo 5

class MemberUpdate : public CardTest {
protected:
    cerrno Event(u8 type, u32 event_id, dpa_pmdb_ifh_summary_t *s, pmdb_punt_info_t *punt,
                 u32 ifh = kMember, u16 port = kMemberPort) {
        pmdb_event_t ev = MemberEvent(type, event_id, ifh, kBundle, port, 2);
        memset(s, 0, sizeof *s);
        return dpa_pmdb_update_ifh_entry_member(&ev, s, punt);
    }
};

// The entry `key` is `want` stamped with `id` (at any time), or unstamped
// when `id` is 0.
void ExpectEntry(u32 key, pmdb_ifh_entry_t want, u32 id = 0) {
    const pmdb_ifh_entry_t e = Ifh(key);
    if (id != 0) want.event_id = id, want.last_update = e.last_update;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want)) << std::hex << key;
}

TEST_F(MemberUpdate, JoinModifyLeaveOfOneMember) {
    PutBundle(kBundle);
    PutMember(kMember, 0);
    pmdb_ifh_entry_t m = Ifh(kMember), b = Ifh(kBundle);
    const pmdb_ifh_entry_t left = m;
    dpa_pmdb_ifh_summary_t s;
    pmdb_punt_info_t punt = {};
    const timespec before = Now();
    ASSERT_EQ(Event(PMDB_EV_MEMBER_JOIN, 10, &s, &punt), PMDB_OK);
    EXPECT_TRUE(Within(Ifh(kMember).last_update, before, Now()));
    m.ifh_flags = PMDB_IFH_MEMBER_ACTIVE;
    m.intf_info.bundle_ifh = kBundle;
    m.intf_info.member_port = kMemberPort;
    m.intf_info.member_port_shift = 0xFE;  // bits 2..7 carried
    ExpectEntry(kMember, m, 10);
    b.member_count = 1;
    ExpectEntry(kBundle, b, 10);
    EXPECT_EQ(s.sum_flags, PMDB_SUM_IS_MEMBER);
    EXPECT_EQ(s.egress_lif, m.intf_info.egress_lif);
    EXPECT_EQ(s.ingress_lif, m.intf_info.ingress_lif);
    EXPECT_EQ(s.bundle_egress_lif, b.intf_info.egress_lif);
    EXPECT_EQ(s.bundle_ingress_lif, b.intf_info.ingress_lif);
    EXPECT_EQ(dpa_pmdb_bundle_member_punt_key(&s), 0x8C050000u);
    ExpectTrace(VESK_DATABASE, 231, {kBundle, 0});  // the bundle has no punt words
    ExpectTrace(VESK_DATABASE, 237, {kMember, s.ingress_lif, s.egress_lif, 5, 3});
    ExpectTrace(VESK_DATABASE, 232, {kBundle, s.bundle_egress_lif, s.bundle_ingress_lif, 1});

    // Joining again refreshes the member but does not count it twice.
    ASSERT_EQ(Event(PMDB_EV_MEMBER_JOIN, 11, &s, &punt), PMDB_OK);
    EXPECT_EQ(s.sum_flags & PMDB_SUM_IS_MEMBER, 0);
    EXPECT_EQ(Ifh(kBundle).member_count, 1);

    // Modify: count kept (bundle not stamped), bundle punt block handed back.
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) { e.punt_info = {kBundle, 0, 0, {7, 6, 5, 4, 3}}; });
    b = Ifh(kBundle);
    ASSERT_EQ(Event(PMDB_EV_MEMBER_MODIFY, 12, &s, &punt, kMember, 0x0401), PMDB_OK);
    ExpectEntry(kBundle, b);
    EXPECT_EQ(s.sum_flags & PMDB_SUM_IS_MEMBER, PMDB_SUM_IS_MEMBER);
    EXPECT_EQ(memcmp(&punt, &b.punt_info, sizeof punt), 0);
    m.intf_info.member_port = 0x0401;
    ExpectEntry(kMember, m, 12);

    // Leave: the member is as before it joined, the summary keeps what its
    // fields held.
    ASSERT_EQ(Event(PMDB_EV_MEMBER_LEAVE, 13, &s, nullptr, kMember, 0), PMDB_OK);
    ExpectEntry(kMember, left, 13);
    EXPECT_EQ(s.port_lo, 1);
    EXPECT_EQ(s.port_hi, 1);
    EXPECT_EQ(s.member_port_shift, 2);
    EXPECT_EQ(s.punt_data[0], 0xAAu);
    EXPECT_EQ(s.punt_data[4], 0xEEu);
    b.member_count = 0;
    ExpectEntry(kBundle, b, 13);

    // Leaving again, or counting out at 0: the count stays 0, unstamped.
    b = Ifh(kBundle);
    ASSERT_EQ(Event(PMDB_EV_MEMBER_LEAVE, 14, &s, nullptr), PMDB_OK);
    ASSERT_EQ(dpa_pmdb_update_bundle_ifh_entry(kBundle, 0, 0, &s, nullptr, 15), PMDB_OK);
    ExpectEntry(kBundle, b);
    ExpectEntry(kMember, left, 14);

    // Counting in wraps at 255.
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) { e.member_count = 255; });
    ASSERT_EQ(dpa_pmdb_update_bundle_ifh_entry(kBundle, 1, 0, &s, nullptr, 16), PMDB_OK);
    EXPECT_EQ(Ifh(kBundle).member_count, 0);
}

TEST_F(MemberUpdate, OutOfResourceMemberJoinsAndLeaves) {
    PutBundle(kBundle);
    PutMember(kMember, 0, 2);
    const u32 slot = static_cast<u32>(SlotOf(PMDB_TYPE_IFH, kBundle));
    dpa_pmdb_ifh_summary_t s;
    // No callback registered: the counters never move.
    ASSERT_EQ(Event(PMDB_EV_MEMBER_JOIN, 1, &s, nullptr), PMDB_OK);
    EXPECT_EQ(OorOf(kBundle), (Oor{}));
    ASSERT_EQ(Event(PMDB_EV_MEMBER_LEAVE, 2, &s, nullptr), PMDB_OK);
    ExpectNoTrace(VESK_EVENT, 311);

    // The callback runs with the bundle's lock free and the member's held.
    static cerrno bundle_lock_rc, member_lock_rc;
    static pellin_mutex_type *bundle_lock, *member_lock;
    bundle_lock = SlotLock(PMDB_TYPE_IFH, kBundle);
    member_lock = SlotLock(PMDB_TYPE_IFH, kMember);
    const dpa_pmdb_oor_cb_t cb = [](u32 ifh, u32 slot, u32 state, u32 removed) {
        OorCalls().push_back({ifh, slot, state, removed});
        bundle_lock_rc = pmdb_entry_lock(bundle_lock);
        if (bundle_lock_rc == 0) pmdb_entry_unlock(bundle_lock);
        member_lock_rc = pmdb_entry_lock(member_lock);
    };
    OorCalls().clear();
    dpa_pmdb_set_oor_cb(cb);
    ExpectTrace(VESK_EVENT, 318, {reinterpret_cast<uintptr_t>(cb)});
    const timespec before = Now();
    ASSERT_EQ(Event(PMDB_EV_MEMBER_JOIN, 3, &s, nullptr), PMDB_OK);
    EXPECT_EQ(OorOf(kBundle), (Oor{0, 1, 2, 0, 1}));
    EXPECT_TRUE(Within(Ifh(kBundle).intf_info.oor_time, before, Now()));
    EXPECT_EQ(OorCalls(), (std::vector<OorCall>{{kBundle, slot, 2, 0}}));
    EXPECT_EQ(bundle_lock_rc, 0u);
    EXPECT_EQ(member_lock_rc, static_cast<cerrno>(EDEADLK));
    ExpectTrace(VESK_EVENT, 311, {1, kMember, 2, kBundle});

    ASSERT_EQ(Event(PMDB_EV_MEMBER_LEAVE, 4, &s, nullptr), PMDB_OK);
    EXPECT_EQ(OorOf(kBundle), (Oor{0, 0, 2, 0, 1}));  // only a direct setting clears the state
    EXPECT_EQ(OorCalls().back(), (OorCall{kBundle, slot, 0, 0}));

    // A level-1 member leaving while no level-1 member is counted.
    PutMember(kMember + 1, kBundle, 1);
    OorCalls().clear();
    ASSERT_EQ(Event(PMDB_EV_MEMBER_LEAVE, 5, &s, nullptr, kMember + 1), PMDB_OK);
    EXPECT_EQ(Ifh(kBundle).intf_info.oor_members_1, 0);
    EXPECT_TRUE(OorCalls().empty());
}

// Two processes, each with its own callback, join and leave their own
// members of one bundle and change the out-of-resource state of all of
// them at the same time.  Afterwards the bundle counts exactly the members
// that name it, per level, and its member count equals its active members.
constexpr int kMembers = 4, kRounds = 15000;
u32 MemberIfh(int i) { return 0x1400 + static_cast<u32>(i); }

// Process `who` joins and leaves its own half of the members and mostly
// changes the out-of-resource state of the other half.
void Churn(size_t who, u32 bundle_slot) {
    static u32 calls, bad_calls, slot;
    slot = bundle_slot;
    dpa_pmdb_set_oor_cb([](u32 ifh, u32 s, u32 state, u32 removed) {
        calls++;
        if (ifh != kBundle || s != slot || state > 2 || removed != 0) bad_calls++;
    });
    const int first = static_cast<int>(who) * kMembers / 2;
    std::mt19937 rng(static_cast<unsigned>(who) + 1);
    bool joined[kMembers / 2] = {};
    int failures = 0;
    for (int n = 0; n < kRounds; n++) {
        u32 out[4];
        dpa_pmdb_ifh_summary_t s = {};
        if (rng() % 3 == 0) {
            const int i = static_cast<int>(rng() % (kMembers / 2));
            pmdb_event_t ev = MemberEvent(joined[i] ? 7 : 5, n, MemberIfh(first + i), kBundle,
                                          kMemberPort, 1);
            failures += dpa_pmdb_update_ifh_entry_member(&ev, &s, nullptr) != 0;
            joined[i] = !joined[i];
        } else {
            const int j = (first + kMembers / 2 + static_cast<int>(rng() % (kMembers * 3 / 4))) %
                          kMembers;
            failures += dpa_pmdb_update_bundle_oor_state(MemberIfh(j), rng() % 3, n, &out[0],
                                                         &out[1], &out[2], &out[3]) != 0;
        }
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(bad_calls, 0u);
    EXPECT_GT(calls, 0u);
}

TEST_F(MemberUpdate, TwoProcessesKeepTheBundleCountersConsistent) {
    PutBundle(kBundle);
    for (int i = 0; i < kMembers; i++) PutPort(MemberIfh(i));
    const u32 slot = static_cast<u32>(SlotOf(PMDB_TYPE_IFH, kBundle));
    RunAtOnce(2, nullptr, [slot](size_t who) { Churn(who, slot); });

    u16 level[3] = {};
    u8 active = 0;
    for (int i = 0; i < kMembers; i++) {
        const pmdb_ifh_entry_t m = Ifh(MemberIfh(i));
        const bool in = (m.ifh_flags & PMDB_IFH_MEMBER_ACTIVE) != 0;
        EXPECT_EQ(in, m.intf_info.bundle_ifh == kBundle) << "member " << i;
        if (in) {
            active++;
            level[m.intf_info.oor_state]++;
        }
    }
    const pmdb_ifh_entry_t bundle = Ifh(kBundle);
    EXPECT_EQ(bundle.intf_info.oor_members_1, level[1]);
    EXPECT_EQ(bundle.intf_info.oor_members_2, level[2]);
    EXPECT_EQ(bundle.member_count, active);
    const u32 derived = dpa_pmdb_oor_derived_state(&bundle.intf_info);
    if (derived != 0) {
        EXPECT_EQ(bundle.intf_info.oor_state, derived);
    }
    ExpectNoTrace(VESK_ERROR, 293);  // no counter ever had a member missing
    ExpectNoTrace(VESK_ERROR, 294);
}

// The bundle's counters change only under the bundle's slot lock: while
// another process holds it, a member's out-of-resource change waits there
// and the bundle stays as it was; released, the change completes.
TEST_F(MemberUpdate, OutOfResourceChangeWaitsForTheBundleLock) {
    PutBundle(kBundle);
    PutMember(kMember, kBundle);
    RecordOorCalls();  // only with a callback do members move the counters
    const Bytes before = EntryBytes(PMDB_TYPE_IFH, kBundle);
    const auto holder = HoldInChild(SlotLock(PMDB_TYPE_IFH, kBundle));
    ASSERT_TRUE(holder->WaitReady());
    // A process, not a thread: its wait is on a lock another process holds,
    // which a thread checker cannot see as ordering this test's reads.
    ChildProcess changer([](ChildLink &) {
        u32 out[4];
        return dpa_pmdb_update_bundle_oor_state(kMember, 2, 7, &out[0], &out[1], &out[2],
                                                &out[3]) == PMDB_OK
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(WaitUntilBlockedOnFutex(changer.pid()))
        << "the change did not wait for the bundle's lock";
    EXPECT_EQ(EntryBytes(PMDB_TYPE_IFH, kBundle), before);
    holder->Release();
    const ChildResult r = changer.Wait();
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    EXPECT_EQ(OorOf(kBundle)[1], 1u) << "oor_members_2";
}

// A writer killed at a point between a member's change and its bundle's
// leaves the bundle's counters apart from its members.  pmdbctl check names
// the bundle; the next writer of any member (here the out-of-resource
// update of an unrelated port), or pmdbctl repair, recounts it (trace 340),
// and check is clean again.  Before the crash: member kMember active at
// level 1 and counted; port kMember + 1, at level 2, not in the bundle.
enum class Op { kJoin, kLeave, kRaise, kLower, kRemove };
enum class Fix { kNextWriter, kRepair };
struct CrashCase {
    const char *point;
    Op op;
    Fix fix;
};

const CrashCase kCrashCases[] = {
    {"join_member_set", Op::kJoin, Fix::kNextWriter},
    {"account_locked", Op::kJoin, Fix::kRepair},
    {"member_changed", Op::kJoin, Fix::kNextWriter},
    {"member_released", Op::kJoin, Fix::kRepair},
    {"bundle_locked", Op::kJoin, Fix::kNextWriter},
    {"leave_counted_out", Op::kLeave, Fix::kRepair},
    {"member_changed", Op::kLeave, Fix::kRepair},
    {"member_released", Op::kLeave, Fix::kNextWriter},
    {"bundle_locked", Op::kLeave, Fix::kRepair},
    {"oor_member_set", Op::kRaise, Fix::kNextWriter},
    {"oor_bundle_locked", Op::kLower, Fix::kRepair},
    {"oor_counted_out", Op::kRaise, Fix::kRepair},
    {"member_removed", Op::kRemove, Fix::kNextWriter},
};

class MemberCrash : public MemberUpdate, public ::testing::WithParamInterface<CrashCase> {
protected:
    static constexpr u32 kJoiner = kMember + 1, kOther = 0x1399;

    cerrno Run(Op op) {
        u32 out[4];
        dpa_pmdb_ifh_summary_t s = {};
        switch (op) {
        case Op::kJoin:
            return Event(PMDB_EV_MEMBER_JOIN, 20, &s, nullptr, kJoiner);
        case Op::kLeave:
            return Event(PMDB_EV_MEMBER_LEAVE, 20, &s, nullptr);
        case Op::kRaise:
        case Op::kLower:
            return dpa_pmdb_update_bundle_oor_state(kMember, op == Op::kRaise ? 2 : 0, 20, &out[0],
                                                    &out[1], &out[2], &out[3]);
        case Op::kRemove:
            return dpa_pmdb_remove_ifh_entry(kMember, &s, 20);
        }
        return PMDB_EINVAL;
    }
    // The bundle's counters as its members give them (member_count,
    // oor_members_1, oor_members_2), and as it stores them.
    static std::vector<u32> Derived() {
        std::vector<u32> d = {0, 0, 0};
        for (u32 key : {kMember, kJoiner}) {
            pmdb_ifh_entry_t m;
            if (!pmdb::test::CopyEntry(PMDB_TYPE_IFH, key, &m, sizeof m) ||
                (m.ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0 || m.intf_info.bundle_ifh != kBundle)
                continue;
            d[0]++;
            if (m.intf_info.oor_state == 1 || m.intf_info.oor_state == 2) d[m.intf_info.oor_state]++;
        }
        return d;
    }
    static std::vector<u32> Stored() {
        const pmdb_ifh_entry_t b = Ifh(kBundle);
        return {b.member_count, b.intf_info.oor_members_1, b.intf_info.oor_members_2};
    }
};

TEST_P(MemberCrash, CountersAreRecountedAfterTheWriterDies) {
    const CrashCase &c = GetParam();
    PutBundle(kBundle, 1, 0);
    PutIfh(kBundle, [](pmdb_ifh_entry_t &e) { e.member_count = 1; });
    PutMember(kMember, kBundle, 1);
    PutMember(kJoiner, 0, 2);
    PutPort(kOther);
    const auto r = pmdb::test::RunInChild([&] {
        setenv(PMDB_CRASH_ENV, c.point, 1);
        RecordOorCalls();
        return static_cast<int>(Run(c.op));
    });
    ASSERT_TRUE(r.KilledBy(SIGKILL)) << r.Describe();
    const std::vector<u32> before = Stored(), derived = Derived();
    ASSERT_NE(before, derived);

    const pmdb::test::ToolRun check = pmdb::test::RunTool(PMDBCTL_PATH, {"check"});
    EXPECT_EQ(check.status, 1) << check.out << check.err;
    EXPECT_NE(check.out.find("bundle 0xb300"), std::string::npos) << check.out;
    if (c.fix == Fix::kRepair) {
        const pmdb::test::ToolRun repair = pmdb::test::RunTool(PMDBCTL_PATH, {"repair"});
        EXPECT_EQ(repair.status, 0) << repair.out << repair.err;
        EXPECT_NE(repair.out.find("bundle 0xb300: member_count"), std::string::npos) << repair.out;
    } else {
        u32 out[4];
        ASSERT_EQ(dpa_pmdb_update_bundle_oor_state(kOther, 1, 21, &out[0], &out[1], &out[2],
                                                   &out[3]),
                  PMDB_OK);
    }
    EXPECT_EQ(Stored(), derived);
    ExpectTrace(VESK_DATABASE, 340,
                {kBundle, before[0], derived[0], before[1], derived[1], before[2], derived[2]});
    const pmdb::test::ToolRun clean = pmdb::test::RunTool(PMDBCTL_PATH, {"check"});
    EXPECT_EQ(clean.status, 0) << clean.out << clean.err;
}

// A live writer stopped at the same point is left alone: check and repair
// report the bundle busy rather than count its member twice, and once let
// go the writer's own bundle step makes the counters right.
TEST_F(MemberCrash, ALiveWriterBetweenMemberAndBundleIsNotRecounted) {
    PutBundle(kBundle);
    PutMember(kJoiner, 0);
    ChildProcess writer([this](ChildLink &) {
        setenv(PMDB_CRASH_ENV, "stop:member_released", 1);
        return static_cast<int>(Run(Op::kJoin));
    });
    int st = 0;
    ASSERT_EQ(waitpid(writer.pid(), &st, WUNTRACED), writer.pid());
    ASSERT_TRUE(WIFSTOPPED(st));
    ASSERT_NE(Stored(), Derived());
    for (const char *command : {"check", "repair"}) {
        const pmdb::test::ToolRun r = pmdb::test::RunTool(PMDBCTL_PATH, {command});
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_NE(r.out.find("bundle 0xb300"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("busy"), std::string::npos) << r.out;
    }
    kill(writer.pid(), SIGCONT);
    const auto r = writer.Wait();
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    EXPECT_EQ(Stored(), (std::vector<u32>{1, 0, 0}));
    EXPECT_EQ(Stored(), Derived());
    ExpectNoTrace(VESK_DATABASE, 340);
}

INSTANTIATE_TEST_SUITE_P(EveryPoint, MemberCrash, ::testing::ValuesIn(kCrashCases),
                         [](const ::testing::TestParamInfo<CrashCase> &info) {
                             return std::string(info.param.point) + "_" +
                                    std::to_string(info.index);
                         });

// The member operation log as an earlier process may have left it.  One
// whose creator died before writing its magic holds no record and is set
// up again; one of another size or with another magic is refused (error
// trace 341 with the reason) and left as it is.
struct LogState {
    const char *name;
    off_t size;
    u32 magic, size_word;
    cerrno rc;
    u64 reason;
};
const LogState kLogStates[] = {
    {"CreatorDiedBeforeTheMagic", PMDB_MEMBER_OPS_SIZE, 0, PMDB_MEMBER_OPS_SIZE, PMDB_OK, 0},
    {"OtherSize", 4096, 0, 0, PMDB_ESHM, 3},
    {"OtherMagic", PMDB_MEMBER_OPS_SIZE, 0x12345678, PMDB_MEMBER_OPS_SIZE, PMDB_ESHM, 4},
};

class MemberOpsLog : public CardTest, public ::testing::WithParamInterface<LogState> {};

TEST_P(MemberOpsLog, IsSetUpAgainOrRefused) {
    const LogState &c = GetParam();
    const int fd = _shm_open(PMDB_MEMBER_OPS_NAME, O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    const u32 head[3] = {c.magic, c.size_word, c.size_word != 0 ? PMDB_MEMBER_OPS_RECORDS : 0};
    ASSERT_EQ(ftruncate(fd, c.size), 0);
    ASSERT_EQ(pwrite(fd, head, sizeof head, 0), static_cast<ssize_t>(sizeof head));
    close(fd);
    pmdb_member_ops_t *log = nullptr;
    EXPECT_EQ(pmdb_member_ops_open(true, &log), c.rc);
    if (c.rc != PMDB_OK) {
        EXPECT_EQ(log, nullptr);
        ExpectTrace(VESK_ERROR, 341, {c.reason}, PMDB_MEMBER_OPS_NAME);
        return;
    }
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->magic, PMDB_MEMBER_OPS_MAGIC);
    EXPECT_EQ(log->records, PMDB_MEMBER_OPS_RECORDS);
    ExpectNoTrace(VESK_ERROR, 341);
}

INSTANTIATE_TEST_SUITE_P(Left, MemberOpsLog, ::testing::ValuesIn(kLogStates),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
