// The string utilities: qkStrBuff's pieces and growth, the process's
// command line, environment and executable as the system gives them, the
// tokenizer against a reference split (also two tokenizations interleaved),
// and the version texts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qkStrBuff.h"
#include "qkVersion.h"

extern char** environ;

namespace {

TEST(StrBuff, PiecesLineFeedsAndGrowth) {
    qkStrBuff lines, raw(1);
    EXPECT_EQ(lines.getBuffer(), nullptr);
    lines += "a";
    lines += "b\n";  // ends with a line feed already
    lines += nullptr;
    lines += "";  // the text ends with a line feed: nothing to add
    EXPECT_STREQ(lines.getBuffer(), "a\nb\n");
    qkStrBuff empty;
    empty += "";  // an empty text does not end with one
    EXPECT_STREQ(empty.getBuffer(), "\n");
    raw += "a";
    raw += "b";
    EXPECT_STREQ(raw.getBuffer(), "ab");

    // Many pieces of every length: the text is their concatenation and the
    // counts stay in step.
    std::mt19937 rng(4);
    qkStrBuff big, bigRaw(1);
    std::string expected, expectedRaw;
    for (int i = 0; i < 2000; ++i) {
        std::string piece(rng() % 300, char('a' + i % 26));
        big += piece.c_str();
        bigRaw += piece.c_str();
        expected += piece;
        if (expected.empty() || expected.back() != '\n') expected += "\n";
        expectedRaw += piece;
        ASSERT_EQ(big.used, expected.size());
        ASSERT_EQ(big.room, big.capacity - big.used);
    }
    EXPECT_EQ(std::string(big.getBuffer()), expected);
    EXPECT_EQ(std::string(bigRaw.getBuffer()), expectedRaw);

    // getBuffer(n) makes room without counting it.
    qkStrBuff scratch;
    char* p = scratch.getBuffer(100);
    ASSERT_NE(p, nullptr);
    EXPECT_GE(scratch.capacity, 102u);
    EXPECT_EQ(scratch.used, 0u);
}

// The system's own answers: this test program's command line, its
// environment in order, its executable.
TEST(SysUtils, CommandLineEnvironmentAndExecutable) {
    qkStrBuff line(1);
    EXPECT_EQ(qkSysUtils::getProcessCmdLine(line, 0), 1);
    std::string text = line.getBuffer() ? line.getBuffer() : "";
    EXPECT_NE(text.find("string_utils_test"), std::string::npos) << text;

    qkStrBuff env;
    qkSysUtils::getProcessEnvironment(env);
    std::string expected;
    for (char** e = environ; *e; ++e)
        expected += std::string(*e) + "\n";
    EXPECT_EQ(std::string(env.getBuffer() ? env.getBuffer() : ""), expected);

    qkStrBuff exe(1);
    ASSERT_EQ(qkSysUtils::getProcessExe(exe, 0), 1);
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(exe.getBuffer()), std::string(path, size_t(n)));
    EXPECT_EQ(qkSysUtils::getParentPID(), 0);
}

// A child started with awkward arguments reads its command line back
// quoted (the check runs in the child, below).
TEST(SysUtils, QuotedArgumentsInAChild) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char self[PATH_MAX];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n <= 0) _exit(2);
        self[n] = 0;
        int out = open("/dev/null", 1);
        dup2(out, STDOUT_FILENO);
        execl(self, self, "--gtest_also_run_disabled_tests",
              "--gtest_filter=SysUtils.DISABLED_CheckOwnCommandLine", "two words", "", "say \"hi\"",
              "back\\", "plain", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Run only by QuotedArgumentsInAChild, in its child.
TEST(SysUtils, DISABLED_CheckOwnCommandLine) {
    qkStrBuff line(1);
    qkSysUtils::getProcessCmdLine(line, 0);
    std::string text = line.getBuffer();
    size_t at = text.find(" --gtest_also_run_disabled_tests");
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_EQ(
        text.substr(at),
        " --gtest_also_run_disabled_tests --gtest_filter=SysUtils.DISABLED_CheckOwnCommandLine "
        "\"two words\" \"\" \"say \\\"hi\\\"\" back\\ plain");
}

// ---- the tokenizer ------------------------------------------------------------------

std::vector<std::string> referenceSplit(std::string const& text, std::string const& delims) {
    std::vector<std::string> out;
    std::string token;
    for (char c : text) {
        if (delims.find(c) != std::string::npos) {
            if (!token.empty()) out.push_back(token), token.clear();
        } else {
            token += c;
        }
    }
    if (!token.empty()) out.push_back(token);
    return out;
}

std::vector<std::string> tokens(std::string text, char const* delims) {
    std::vector<std::string> out;
    char* save = text.data();
    for (char* t = KorSysStrtok(text.data(), delims, &save); t;
         t = KorSysStrtok(nullptr, delims, &save)) {
        out.push_back(t);
    }
    return out;
}

TEST(Strtok, MatchesAReferenceSplitAndInterleaves) {
    EXPECT_EQ(tokens(",a,,b", ","), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(tokens("", ","), std::vector<std::string>{});
    EXPECT_EQ(tokens(",,,", ","), std::vector<std::string>{});
    std::mt19937 rng(12);
    for (int round = 0; round < 5000; ++round) {
        std::string delims;
        for (int i = rng() % 4; i >= 0; --i)
            delims += "ab, ;x"[rng() % 6];
        std::string text(rng() % 30, ' ');
        for (char& c : text)
            c = "abcxyz, ;"[rng() % 9];
        ASSERT_EQ(tokens(text, delims.c_str()), referenceSplit(text, delims))
            << text << "|" << delims;
    }
    // Two texts tokenized in turns, each with its own cursor.
    std::string one = "a b c d", two = "1,2,3";
    char *s1 = one.data(), *s2 = two.data();
    std::vector<std::string> got;
    char* t1 = KorSysStrtok(one.data(), " ", &s1);
    char* t2 = KorSysStrtok(two.data(), ",", &s2);
    while (t1 || t2) {
        if (t1) got.push_back(t1), t1 = KorSysStrtok(nullptr, " ", &s1);
        if (t2) got.push_back(t2), t2 = KorSysStrtok(nullptr, ",", &s2);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"a", "1", "b", "2", "c", "3", "d"}));
    // Null arguments give null.
    char* none = nullptr;
    char text[] = "x";
    EXPECT_EQ(KorSysStrtok(text, ",", &none), nullptr);
    EXPECT_EQ(KorSysStrtok(text, nullptr, &none), nullptr);
    EXPECT_EQ(KorSysStrtok(text, ",", nullptr), nullptr);
}

TEST(Version, TextsAndTheFirstHostVersionKept) {
    EXPECT_STREQ(qkcInternalVersion, "33.0.0.0");
    EXPECT_STREQ(getQkcVersion(), qkcVersion);
    EXPECT_STREQ(qkcVersion, qkcQkffVersion);
    EXPECT_EQ(getRuntimeBitMode(), 64);
    setQkcVersion(nullptr);
    EXPECT_STREQ(getQkcVersion(), qkcVersion);
    std::string longer(60, 'v');
    setQkcVersion(longer.c_str());
    setQkcVersion("second");
    EXPECT_EQ(std::string(getQkcVersion()), longer.substr(0, 39));
}

}  // namespace
