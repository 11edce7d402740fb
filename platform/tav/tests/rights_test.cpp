// Who may connect and who may write.
#include "support/store_fixture.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>

#include "client/admin.h"
#include "protocol/limits.h"
#include "service/access.h"

using namespace tavtest;
using tav::Access;
using tav::Credentials;
using tav::Rights;

namespace {

using Names = std::vector<std::string>;

constexpr uid_t stranger = 54321;
constexpr gid_t no_group = 54321;

// Groups that every such system has.
constexpr gid_t writers = 1;
constexpr gid_t readers = 2;

std::string name_of(gid_t group) {
    const ::group *found = ::getgrgid(group);
    return found != nullptr ? found->gr_name : std::string();
}

// A process of another user. It runs `act`, then stays until the end of the object.
class OtherUser {
public:
    OtherUser(uid_t user, gid_t group, const std::vector<gid_t> &groups,
              const std::function<std::string()> &act) {
        int ends[2] = {-1, -1};
        if (::pipe(ends) != 0) {
            return;
        }
        child = ::fork();
        if (child == 0) {
            const bool is_it = ::setgroups(groups.size(), groups.data()) == 0 &&
                               ::setresgid(group, group, group) == 0 &&
                               ::setresuid(user, user, user) == 0;
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // becoming another user ends that
            const std::string text = is_it ? act() : "cannot become the user";
            if (::write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
                ::_exit(1);
            }
            ::close(ends[1]);
            for (;;) {
                ::pause();
            }
        }
        ::close(ends[1]);
        std::array<char, 1000> part{};
        for (ssize_t got = 0; (got = ::read(ends[0], part.data(), part.size())) > 0;) {
            said.append(part.data(), static_cast<std::size_t>(got));
        }
        ::close(ends[0]);
    }
    ~OtherUser() {
        if (child > 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }
    OtherUser(const OtherUser &) = delete;
    OtherUser &operator=(const OtherUser &) = delete;

    std::string said; // the result of `act`

private:
    pid_t child = -1;
};

class RightsTest : public StoreTest {
protected:
    void SetUp() override {
        if (::geteuid() != 0 || ::setegid(writers) != 0 || ::setegid(0) != 0) {
            GTEST_SKIP() << "only root may become another user";
        }
        if (name_of(writers).empty() || name_of(readers).empty()) {
            GTEST_SKIP() << "no groups " << writers << " and " << readers;
        }
        ::chmod(dir.file("").c_str(), 0755);
    }

    void start_with(const Names &options) {
        Names all{"--memory"};
        all.insert(all.end(), options.begin(), options.end());
        start(all);
    }

    // The result of `act` when another user runs it.
    static std::string as(uid_t user, gid_t group, const std::vector<gid_t> &groups,
                          const std::function<std::string()> &act) {
        return OtherUser(user, group, groups, act).said;
    }

    // "connected", or the library's report.
    static std::string connect() {
        const Client client;
        return client.connected() ? "connected"
                                  : (reports().empty() ? "no report" : reports().back().second);
    }
    static std::string write_and_read() {
        Client client;
        if (!client.connected()) {
            return reports().back().second;
        }
        const api_status_t status = client.set("/a", "changed");
        return "write " + std::to_string(status) + ", read " + client.get("/a");
    }

    std::string refusal(const std::string &reason) const {
        return "cannot connect to the settings service at " + socket + ": " + reason;
    }
};

} // namespace

TEST(Rights, TheServicesOwnUserAndRootMayEverything) {
    const Rights rights{1000, {}, {}};
    EXPECT_EQ(rights.of(Credentials{1, 1000, 1000, {}}), Access::write);
    EXPECT_EQ(rights.of(Credentials{1, 0, 0, {}}), Access::write);
    EXPECT_EQ(rights.of(Credentials{1, 1001, 1000, {1000, 0}}), Access::none);
}

TEST(Rights, PrimaryAndSupplementaryGroupsGiveRights) {
    const Rights rights{1000, 50, 60};
    EXPECT_EQ(rights.of(Credentials{1, 7, 50, {}}), Access::write);
    EXPECT_EQ(rights.of(Credentials{1, 7, 7, {1, 2, 50}}), Access::write);
    EXPECT_EQ(rights.of(Credentials{1, 7, 60, {}}), Access::read);
    EXPECT_EQ(rights.of(Credentials{1, 7, 7, {60, 2}}), Access::read);
    EXPECT_EQ(rights.of(Credentials{1, 7, 60, {50}}), Access::write);
    EXPECT_EQ(rights.of(Credentials{1, 7, 7, {1, 2}}), Access::none);
}

TEST(Rights, TheSocketBelongsToTheGroupWhoseMembersAllConnect) {
    EXPECT_FALSE((Rights{0, {}, {}}.socket_group().has_value()));
    EXPECT_EQ((Rights{0, 50, {}}.socket_group()), 50U);
    EXPECT_EQ((Rights{0, {}, 60}.socket_group()), 60U);
    EXPECT_EQ((Rights{0, 50, 60}.socket_group()), 60U);
}

TEST(Rights, FewDescriptorsMeanFewConnectionsAndStillSomeForRoot) {
    const auto limits_of = [](std::size_t descriptors) {
        const tav::ConnectionLimits limits = tav::connection_limits(descriptors);
        return std::vector<std::size_t>{limits.all, limits.kept, limits.per_user};
    };
    using Numbers = std::vector<std::size_t>;
    EXPECT_EQ(limits_of(4096), (Numbers{1024, 128, 256}));
    EXPECT_EQ(limits_of(1024), (Numbers{1004, 125, 256}));
    EXPECT_EQ(limits_of(220), (Numbers{200, 25, 87}));
    EXPECT_EQ(limits_of(40), (Numbers{20, 8, 8}));
    EXPECT_EQ(limits_of(32), (Numbers{12, 8, 8}));
    EXPECT_THROW(limits_of(31), std::runtime_error);
}

TEST_F(StoreTest, AGroupThatDoesNotExistIsNamed) {
    EXPECT_EQ(refused({"--memory", "--read-group", "no-such-group"}),
              "tavd: there is no group 'no-such-group'\n");
}

TEST_F(RightsTest, WithoutAGroupOnlyOwnerAndRootReachTheSocket) {
    start_with({});
    EXPECT_EQ(as(stranger, no_group, {}, connect), refusal("Permission denied"));
    EXPECT_EQ(connect(), "connected");
}

TEST_F(RightsTest, AUserWithoutRightsIsRefusedWithAReasonEvenIfTheSocketIsOpenToAll) {
    ::mkdir(dir.file("run").c_str(), 0755);
    start_with({"--socket-mode", "0666"});
    EXPECT_EQ(as(stranger, no_group, {}, connect), refusal("this user may not use the store"));
    EXPECT_TRUE(tavd->wait_for_error_text("of user 54321 may not connect"));
    EXPECT_EQ(connect(), "connected");
}

TEST_F(RightsTest, SocketAndDirectoryAreOpenToTheGroupAndNobodyElse) {
    start_with({"--write-group", name_of(writers)});
    struct stat info {};
    ASSERT_EQ(::stat(socket.c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, writers);
    EXPECT_EQ(info.st_mode & 07777U, 0660U);
    ASSERT_EQ(::stat(dir.file("run").c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, writers);
    EXPECT_EQ(info.st_mode & 07777U, 0750U);
}

TEST_F(RightsTest, AnExistingDirectoryIsNotChanged) {
    ::mkdir(dir.file("run").c_str(), 0711);
    start_with({"--write-group", name_of(writers)});
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("run").c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, 0U);
    EXPECT_EQ(info.st_mode & 07777U, 0711U);
}

TEST_F(RightsTest, TheWriteGroupWrites) {
    start_with({"--write-group", name_of(writers)});
    EXPECT_EQ(as(stranger, no_group, {writers}, write_and_read), "write 1, read changed");
    EXPECT_EQ(as(stranger, writers, {}, connect), "connected");
    EXPECT_EQ(as(stranger, no_group, {readers}, connect), refusal("Permission denied"));
}

TEST_F(RightsTest, TheReadGroupReadsAndChangesNothing) {
    start_with({"--read-group", name_of(readers)});
    Client owner;
    owner.set("/a", "before");
    owner.set("/n/a", "before");
    EXPECT_EQ(as(stranger, no_group, {readers}, write_and_read), "write 11, read before");
    EXPECT_EQ(as(stranger, no_group, {readers},
                 [] { return "remove " + std::to_string(Client().remove("/n")); }),
              "remove 11");
    EXPECT_EQ(owner.get("/n/a"), "before");
    EXPECT_EQ(as(stranger, no_group, {writers}, connect), refusal("Permission denied"));
}

TEST_F(RightsTest, AReaderMayRegisterForChangesAndWithTheWatchdog) {
    start_with({"--read-group", name_of(readers)});
    EXPECT_EQ(as(stranger, no_group, {readers},
                 [] {
                     Client client;
                     api_status_t status = api_status_none;
                     client.tav.watchdog_register(status, "reader", 60, true);
                     return std::to_string(client.watch("/")) + " " + std::to_string(status) + " " +
                            std::to_string(client.ping());
                 }),
              "1 1 1");
}

TEST_F(RightsTest, WithBothGroupsAWriterIsInBoth) {
    start_with({"--read-group", name_of(readers), "--write-group", name_of(writers)});
    EXPECT_EQ(as(stranger, no_group, {readers, writers}, write_and_read), "write 1, read changed");
    EXPECT_EQ(as(stranger, no_group, {readers}, write_and_read), "write 11, read changed");
    EXPECT_EQ(as(stranger, no_group, {writers}, connect), refusal("Permission denied"));
}

TEST_F(RightsTest, AUserOfVeryManyGroupsIsKnownByAnyOfThem) {
    start_with({"--write-group", name_of(writers)});
    std::vector<gid_t> groups;
    for (gid_t group = 10000; group < 10300; ++group) {
        groups.push_back(group);
    }
    groups.push_back(writers);
    EXPECT_EQ(as(stranger, no_group, groups, connect), "connected");
}

TEST_F(RightsTest, StatusShowsWhoMayWrite) {
    start_with({"--read-group", name_of(readers)});
    const auto rights_shown = [] {
        const Client client;
        tav::ServiceStatus status;
        tav::service_status(client.tav.handle, status);
        return std::string(status.clients.at(0).may_write ? "writes" : "reads");
    };
    EXPECT_EQ(as(stranger, no_group, {readers}, rights_shown), "reads");
    EXPECT_EQ(rights_shown(), "writes");
}

namespace {

// Connects as many clients as it may, which stay connected. Their number.
std::string crowd() {
    static std::vector<std::unique_ptr<Client>> all;
    do {
        all.push_back(std::make_unique<Client>());
    } while (all.back()->connected());
    return std::to_string(all.size() - 1);
}

} // namespace

TEST_F(RightsTest, AllOthersTogetherLeaveConnectionsToRoot) {
    start_with({"--write-group", name_of(writers)});
    const std::size_t each = tav::limits::connections_per_user / 2;
    std::size_t left = (tav::limits::connections - tav::limits::connections_kept) / 2;
    std::vector<std::unique_ptr<OtherUser>> crowds;
    const std::vector<gid_t> group{writers};
    for (uid_t user = stranger; left > 0; ++user) {
        crowds.push_back(std::make_unique<OtherUser>(user, no_group, group, crowd));
        EXPECT_EQ(crowds.back()->said, std::to_string(std::min(each, left)));
        left -= std::min(each, left);
    }
    EXPECT_EQ(as(stranger + 100, no_group, group, crowd), "0");
    Client root;
    ASSERT_TRUE(root.connected());
    EXPECT_EQ(root.set("/a", "1"), api_status_ok);
}

TEST_F(RightsTest, OthersLeaveConnectionsToRootWhenDescriptorsAreFew) {
    prefix = {"/bin/sh", "-c", "ulimit -n 40 && exec \"$0\" \"$@\""};
    start({"--database", dir.file("store.db"), "--write-group", name_of(writers)});
    const OtherUser one(stranger, no_group, {writers}, crowd);
    const OtherUser other(stranger + 1, no_group, {writers}, crowd);
    EXPECT_EQ(std::stoi(one.said) + std::stoi(other.said), 6);
    Client root;
    ASSERT_TRUE(root.connected());
    EXPECT_EQ(root.set("/a", "1"), api_status_ok);
    const std::string shown = tav({"status"}).output;
    EXPECT_TRUE(has(shown, "connections of a user                          8           8"));
}
