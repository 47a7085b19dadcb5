#include "service/access/session_store.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <vector>

namespace keldra {
namespace {

const std::string ADDRESS = "192.0.2.7";
const std::string TOKEN(64, 'a');
const std::string MARK(64, 'c');
const std::string FOREIGN(64, 'b');

/// Files of this process cannot grow.
class FullDisk {
public:
    FullDisk() {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit tiny{16, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &tiny);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit before_{};
    void (*handler_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

class SessionStoreTest : public testing::Test {
protected:
    SessionProof proof(const std::string& method = "GET", const std::string& header = "",
                       const std::string& cookie = TOKEN) const {
        return {id_, ADDRESS, method, header, cookie};
    }
    bool aliveAfterRestart() {
        SessionStore again(file_, clock_, limits_);
        again.load();
        return again.check(proof(), MARK);
    }

    TempDir dir_;
    const std::filesystem::path file_ = dir_ / "sessions";
    TestClock clock_;
    const SessionLimits limits_{.idleSeconds = 100, .absoluteSeconds = 1000, .count = 4};
    SessionStore store_{file_, clock_, limits_};
    const std::string id_ = store_.create(ADDRESS, MARK).id;
};

TEST_F(SessionStoreTest, AnAcknowledgedLogOnSurvivesAKill) {
    ASSERT_EQ(id_.size(), 64U);
    EXPECT_EQ(id_.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_TRUE(aliveAfterRestart());
}

TEST_F(SessionStoreTest, TheFileGivesNobodyASession) {
    struct stat status {};
    ASSERT_EQ(::stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    store_.check(proof(), MARK);
    EXPECT_EQ(::readFile(file_).find(id_), std::string::npos);
}

TEST_F(SessionStoreTest, ASessionServesNobodyElse) {
    SessionProof other = proof();
    other.remoteAddress = "192.0.2.8";
    EXPECT_FALSE(store_.check(other, MARK));
    for (const std::string& id : {std::string(), std::string(64, '0'), id_.substr(1), id_ + "0"}) {
        other = proof();
        other.id = id;
        EXPECT_FALSE(store_.check(other, MARK)) << id;
    }
    EXPECT_TRUE(store_.check(proof(), MARK));
}

TEST_F(SessionStoreTest, ItEndsWhenUnusedAndInAnyCaseAfterItsTime) {
    clock_.pass(99);
    EXPECT_TRUE(store_.check(proof(), MARK));
    clock_.pass(99);
    EXPECT_TRUE(store_.check(proof(), MARK));
    clock_.pass(100);
    EXPECT_FALSE(store_.check(proof(), MARK));
}

TEST_F(SessionStoreTest, UseDoesNotProlongItForEver) {
    for (int i = 0; i < 19; ++i) {
        clock_.pass(50);
        ASSERT_TRUE(store_.check(proof(), MARK)) << i;
    }
    store_.write();
    clock_.pass(50);
    EXPECT_FALSE(store_.check(proof(), MARK));
    EXPECT_FALSE(aliveAfterRestart());
}

struct TokenCase {
    const char* name;
    const char* method;
    std::string header;
    std::string cookie;
    bool accepted;
};

TEST_F(SessionStoreTest, ARequestThatChangesSomethingNeedsTheTokenTwice) {
    ASSERT_TRUE(store_.check(proof("GET", "", TOKEN), MARK));
    const std::vector<TokenCase> cases{
        {"both", "POST", TOKEN, TOKEN, true},
        {"none", "POST", "", "", false},
        {"no form token", "POST", "", TOKEN, false},
        {"no cookie", "POST", TOKEN, "", false},
        {"different", "POST", FOREIGN, TOKEN, false},
        {"equal, but planted", "POST", FOREIGN, FOREIGN, false},
        {"unknown method", "", "", TOKEN, false},
        {"another method", "PUT", "", TOKEN, false},
        {"case of the method", "get", "", TOKEN, false},
        {"show without token", "GET", "", TOKEN, true},
        {"show without cookie", "GET", "", "", true},
        {"show with token", "GET", TOKEN, TOKEN, true},
        {"show with foreign token", "GET", FOREIGN, TOKEN, false},
        {"show with foreign cookie", "GET", "", FOREIGN, false},
        {"show with token but no cookie", "GET", TOKEN, "", false},
        {"head", "HEAD", "", TOKEN, true},
    };
    for (const TokenCase& test : cases)
        EXPECT_EQ(store_.check(proof(test.method, test.header, test.cookie), MARK), test.accepted) << test.name;
}

TEST_F(SessionStoreTest, TheFirstTokenStaysAcrossARestart) {
    ASSERT_TRUE(store_.check(proof("POST", TOKEN, TOKEN), MARK));
    store_.write();
    SessionStore again(file_, clock_, limits_);
    again.load();
    EXPECT_FALSE(again.check(proof("POST", FOREIGN, FOREIGN), MARK));
    EXPECT_TRUE(again.check(proof("POST", TOKEN, TOKEN), MARK));
}

TEST_F(SessionStoreTest, LogOffEndsItForGoodAndNeedsTheProofToo) {
    EXPECT_FALSE(store_.remove(proof("POST", "", TOKEN), MARK));
    EXPECT_TRUE(store_.check(proof(), MARK));
    EXPECT_TRUE(store_.remove(proof("POST", TOKEN, TOKEN), MARK));
    EXPECT_FALSE(store_.check(proof(), MARK));
    EXPECT_FALSE(aliveAfterRestart());
}

TEST_F(SessionStoreTest, SessionsDoNotGrowWithoutBound) {
    std::set<std::string> ids;
    for (int i = 0; i < 20; ++i) {
        clock_.pass(1);
        ids.insert(store_.create(ADDRESS, MARK).id);
    }
    EXPECT_EQ(ids.size(), 20U);
    EXPECT_EQ(store_.size(), 4U);
    EXPECT_FALSE(store_.check(proof(), MARK)) << "the one unused longest had to go";
    clock_.pass(100);
    store_.cleanUp(MARK);
    EXPECT_EQ(store_.size(), 0U);
}

TEST_F(SessionStoreTest, ANewPasswordEndsEverySessionOfTheOldOne) {
    const std::string other = store_.create(ADDRESS, FOREIGN).id;
    EXPECT_FALSE(store_.check(proof(), FOREIGN));
    EXPECT_FALSE(store_.lives(id_, FOREIGN));
    EXPECT_TRUE(store_.lives(other, FOREIGN));
    EXPECT_EQ(store_.list(FOREIGN).size(), 1U);
    store_.cleanUp(FOREIGN);
    EXPECT_FALSE(aliveAfterRestart());
}

TEST_F(SessionStoreTest, WhatAPageAsksByItselfKeepsNoSessionAlive) {
    clock_.pass(60);
    EXPECT_TRUE(store_.check(proof(), MARK, SessionUse::BY_PAGE));
    clock_.pass(40);
    EXPECT_FALSE(store_.check(proof(), MARK));
}

TEST_F(SessionStoreTest, AJumpOfTheClockNeitherEndsNorProlongsASession) {
    for (const std::int64_t jump : {100'000'000, -200'000'000}) {
        clock_.seconds += jump;
        EXPECT_TRUE(store_.check(proof(), MARK)) << jump;
        EXPECT_EQ(store_.list(MARK).at(0).lastUse, clock_.seconds);
    }
    store_.write();
    clock_.seconds -= 5000;
    EXPECT_TRUE(aliveAfterRestart());
    clock_.pass(100);
    EXPECT_FALSE(store_.check(proof(), MARK));
}

TEST_F(SessionStoreTest, ASessionThatWasEndedBySomebodyElseHasEnded) {
    EXPECT_FALSE(store_.end(id_)) << "a list of sessions gives nobody a session";
    ASSERT_TRUE(store_.end(SessionStore::listedId(id_)));
    EXPECT_FALSE(store_.check(proof(), MARK));
    EXPECT_FALSE(aliveAfterRestart());
}

TEST_F(SessionStoreTest, ALogOffStaysOneThoughTheDiskIsFullAndIsWrittenLater) {
    const std::string other = store_.create("192.0.2.8", MARK).id;
    {
        const FullDisk full;
        EXPECT_TRUE(store_.remove(proof("POST", TOKEN, TOKEN), MARK));
        EXPECT_NE(store_.problem().find("File too large"), std::string::npos) << store_.problem();
        EXPECT_FALSE(aliveAfterRestart());
        EXPECT_NE(store_.create(ADDRESS, MARK).reason, "");
    }
    store_.cleanUp(MARK);
    EXPECT_EQ(store_.problem(), "");
    EXPECT_FALSE(aliveAfterRestart());
    SessionStore again(file_, clock_, limits_);
    again.load();
    EXPECT_TRUE(again.lives(other, MARK));
}

TEST_F(SessionStoreTest, ADamagedFileCostsOnlyTheDamagedLines) {
    ::writeFile(file_, "garbage\n" + ::readFile(file_) + std::string("\0\xff = = =\n", 9) + std::string(64, 'f'));
    EXPECT_TRUE(aliveAfterRestart());
}

TEST_F(SessionStoreTest, ALogOnThatCannotBeWrittenIsNotGiven) {
    SessionStore nowhere(dir_ / "missing" / "sessions", clock_, limits_);
    EXPECT_EQ(nowhere.create(ADDRESS, MARK).id, "");
    EXPECT_EQ(nowhere.size(), 0U);
}

}  // namespace
}  // namespace keldra
