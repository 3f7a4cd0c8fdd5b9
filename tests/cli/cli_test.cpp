// SPDX-License-Identifier: LGPL-2.1-or-later
// The tavro-quenda tool as its users run it.
#include <sys/wait.h>
#include <unistd.h>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "built_program.h"
#include "fixture.h"
#include "results.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs a shell command line, capturing its standard output and error.
Outcome run(const std::string &command)
{
    Outcome r;
    char err_path[] = "/tmp/tq-cli-err-XXXXXX";
    int fd = mkstemp(err_path);
    close(fd);
    FILE *p = popen((command + " 2>" + err_path).c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
        r.out.append(buf, n);
    int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.err = tqtest::read_file(err_path);
    unlink(err_path);
    return r;
}


const std::string kCli = tqtest::built_program(TQ_CLI);

TEST(Cli, IdentityReportTextAndJsonAgree)
{
    Outcome text = run(kCli + " identity");
    ASSERT_EQ(text.status, 0) << text.err;
    std::vector<std::string> lines = tqtest::lines_of(text.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(text.out.find("\nSystem UUID:"), std::string::npos) << text.out;

    Outcome json = run(kCli + " identity --json");
    ASSERT_EQ(json.status, 0) << json.err;
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(json.out.c_str()), cJSON_Delete);
    ASSERT_TRUE(root && cJSON_IsObject(root.get())) << json.out;
    ASSERT_EQ(cJSON_GetArraySize(root.get()), static_cast<int>(lines.size()));

    // Each text line says what the JSON member says.
    std::regex line_re(R"(([^:]+):\s+(.*))");
    int i = 0;
    for (const cJSON *item = root->child; item; item = item->next, ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, line_re)) << lines[i];
        std::string shown = m[2];
        if (cJSON_IsNull(item))
            EXPECT_EQ(shown, "not available") << item->string;
        else if (cJSON_IsBool(item))
            EXPECT_EQ(shown, cJSON_IsTrue(item) ? "yes" : "no") << item->string;
        else if (cJSON_IsString(item))
            EXPECT_EQ(shown, item->valuestring) << item->string;
        else
            ADD_FAILURE() << item->string << " is neither text, yes/no nor null";
    }
}

TEST(Cli, HelpVersionAndMistakes)
{
    Outcome help = run(kCli + " --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("identity"), std::string::npos);

    Outcome version = run(kCli + " --version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tavro-quenda ", 0), 0u);

    EXPECT_EQ(run(kCli).status, 2);
    Outcome unknown = run(kCli + " frobnicate");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("unknown command 'frobnicate'"), std::string::npos);
    EXPECT_EQ(run(kCli + " identity --xml").status, 2);
}

TEST(Cli, UnprivilegedRunStillReports)
{
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to run the tool as an unprivileged user";
    Outcome as_root = run(kCli + " identity"); // makes sure the log directory exists, owned by root
    ASSERT_EQ(as_root.status, 0);

    Outcome nobody = run("/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups " + kCli + " identity");
    EXPECT_EQ(nobody.status, 0) << nobody.err;
    EXPECT_EQ(tqtest::lines_of(nobody.out).size(), tqtest::lines_of(as_root.out).size());
    // The only word about the log is the library's own, and only because it may not write there.
    for (const std::string &line : tqtest::lines_of(nobody.err)) {
        if (line.find("log") != std::string::npos) {
            EXPECT_EQ(line, "Open log file failed: Permission denied");
        }
    }
}

} // namespace
