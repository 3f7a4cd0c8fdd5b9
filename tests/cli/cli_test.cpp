// SPDX-License-Identifier: LGPL-2.1-or-later
// The tavro-quenda tool as its users run it: real files, real gpg, openssl
// and coreutils beside it.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <regex>
#include <set>
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

// Runs a /bin/sh command line, capturing standard output and error.
Outcome run_shell(const std::string &command)
{
    Outcome r;
    char err_path[] = "/tmp/tq-cli-err-XXXXXX";
    int fd = mkstemp(err_path);
    if (fd < 0)
        return r;
    close(fd);
    FILE *p = popen(("{ " + command + "; } 2>" + err_path).c_str(), "re");
    if (p) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;)
            r.out.append(buf, n);
        int status = pclose(p);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    r.err = tqtest::read_file(err_path);
    unlink(err_path);
    return r;
}

// The one place that says how the tool is started: a shell word, for
// command lines and pipelines alike.
std::string cli() { return tqtest::built_program(TQ_CLI); }

// Runs the tool; args are shell words, redirections included.
Outcome run_cli(const std::string &args) { return run_shell(cli() + " " + args); }

std::string sh_quote(const std::string &s) { return "'" + s + "'"; }

// A private directory for a test's files, removed with everything in it.
struct TempDir {
    std::string path;
    TempDir()
    {
        char templ[] = "/tmp/tq-cli-XXXXXX";
        path = mkdtemp(templ);
    }
    ~TempDir() { run_shell("rm -rf " + sh_quote(path)); }
    std::string file(const std::string &name, const std::string &content) const
    {
        std::string p = path + "/" + name;
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }
};

const std::string kGnupgData = TQ_GNUPG_DATA;

std::string random_bytes(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string out(n, '\0');
    for (char &c : out)
        c = static_cast<char>(gen() & 0xff);
    return out;
}

TEST(Cli, EveryFailureSaysWhyWithItsExitStatus)
{
    TempDir d;
    std::string signed_text = tqtest::read_file(kGnupgData + "/hello-dev.asc");
    d.file("tampered.asc", std::regex_replace(signed_text, std::regex("\nhello\n"), "\nhullo\n"));
    d.file("plain.txt", "just text\n");
    d.file("empty", "");
    d.file("long.txt", std::string(1024, 'a'));
    d.file("app.conf", "[G]\nK=v\n");
    d.file("short.b64", "YWJ\n");
    d.file("lower.url", "YQ%3d%3d\n");
    const std::string D = d.path;
    struct Row {
        std::string args;
        int status;
        std::string message;
    };
    std::vector<Row> rows = {
        {"", 2, "tavro-quenda: no command given"},
        {"--frob", 2, "tavro-quenda: unrecognized option '--frob'"},
        {"frob", 2, "tavro-quenda: unknown command 'frob'"},
        {"identity --xml", 2, "tavro-quenda: identity: unrecognized option '--xml'"},
        {"identity -o mac,frob", 2, "tavro-quenda: identity: unknown field 'frob'"},
        {"identity -J -n", 2, "tavro-quenda: identity: --json and --noheadings cannot be used together"},
        {"identity --json=wide", 2, "tavro-quenda: identity: --json takes pretty or short, not 'wide'"},
        {"identity >/dev/full", 3, "tavro-quenda: write error: No space left on device"},
        {"verify --gpgme --cached x", 2, "tavro-quenda: verify: --gpgme and --cached cannot be used together"},
        {"verify /x", 3, "tavro-quenda: verify: /x: No such file or directory"},
        {"verify " + D, 3, "tavro-quenda: verify: " + D + ": Is a directory"},
        {"verify " + D + "/plain.txt", 1, "tavro-quenda: verify: " + D + "/plain.txt: not signed"},
        {"verify " + D + "/tampered.asc", 1, "tavro-quenda: verify: " + D + "/tampered.asc: bad signature"},
        {"verify - <" + kGnupgData + "/hello-other.asc", 1,
         "tavro-quenda: verify: standard input: not signed by the trusted key"},
        {"verify " + kGnupgData + "/big-dev.asc", 0,
         "tavro-quenda: verify: " + kGnupgData + "/big-dev.asc: signed text is longer than 4096 bytes and is not shown"},
        {"encrypt <" + D, 3, "tavro-quenda: encrypt: standard input: Is a directory"},
        {"encrypt <&-", 3, "tavro-quenda: encrypt: standard input: Bad file descriptor"},
        {"digest --md5 --sha1 x", 2, "tavro-quenda: digest: --md5 and --sha1 cannot be used together"},
        {"digest /x", 3, "tavro-quenda: digest: /x: No such file or directory"},
        {"digest " + D + "/empty " + std::string(64, '0'), 1, "tavro-quenda: digest: " + D + "/empty: digest does not match"},
        {"rsa-check " + D + "/plain.txt 'AB C'", 4, "tavro-quenda: rsa-check: the signature is not Base64"},
        {"record write " + D + "/rec <" + D + "/long.txt", 4,
         "tavro-quenda: record: " + D + "/rec: the text is 1024 characters; a record holds at most 1023; nothing written"},
        {"record read " + D + "/empty", 4, "tavro-quenda: record: " + D + "/empty: empty, not a record"},
        {"keyfile get " + D + "/long.txt G K", 4, "tavro-quenda: keyfile: " + D + "/long.txt: not a key file"},
        {"keyfile get " + D + "/app.conf G X", 1, "tavro-quenda: keyfile: " + D + "/app.conf: no key 'X' in group [G]"},
        {"keyfile set /x/y/z G K v", 3, "tavro-quenda: keyfile: /x/y/z: not written"},
        {"base64 -d <" + D + "/short.b64", 4, "tavro-quenda: base64: standard input: not Base64 (result 59: its length is not a multiple of 4)"},
        {"base64 -d --url " + D + "/lower.url", 4, "tavro-quenda: base64: " + D + "/lower.url: not the URL form of Base64 (result 66"},
    };
    if (access("/etc/tavro-quenda/public.pem", F_OK) != 0)
        rows.push_back({"rsa-check " + D + "/plain.txt AAAA", 3,
                        "tavro-quenda: rsa-check: /etc/tavro-quenda/public.pem: No such file or directory"});
    for (const Row &row : rows) {
        Outcome r = run_cli(row.args);
        EXPECT_EQ(r.status, row.status) << row.args << "\n" << r.err;
        EXPECT_TRUE(tqtest::contains(r.err, row.message))
            << row.args << "\nstderr: " << r.err;
    }
    struct stat st {};
    EXPECT_NE(stat((D + "/rec").c_str(), &st), 0) << "a refused record text must not create the file";
}

TEST(Cli, HelpOfEveryCommandExitsZeroAndAgreesWithTheManualPage)
{
    std::string page = std::regex_replace(tqtest::read_file(TQ_MAN_PAGE), std::regex(R"(\\-)"), "-");
    page = std::regex_replace(page, std::regex(R"(\\f[BIR])"), "");
    ASSERT_FALSE(page.empty());
    for (std::string command : {"", "identity", "verify", "encrypt", "digest", "rsa-check", "record", "keyfile", "base64"}) {
        for (const char *flag : {" --help", " -h"}) {
            Outcome r = run_cli(command + flag);
            EXPECT_EQ(r.status, 0) << command << flag << r.err;
            EXPECT_EQ(r.out.rfind("Usage: tavro-quenda " + command, 0), 0u) << r.out;
            EXPECT_EQ(r.err, "");
            // Every long option the help names, the manual page names too.
            std::regex option_re(R"(--[a-z0-9][a-z0-9-]*)");
            for (auto it = std::sregex_iterator(r.out.begin(), r.out.end(), option_re); it != std::sregex_iterator(); ++it)
                EXPECT_TRUE(tqtest::contains(page, it->str())) << command << ": " << it->str() << " is not in the manual page";
        }
    }
    // The exit statuses and the identity fields, in both.
    Outcome help = run_cli("--help");
    Outcome identity_help = run_cli("identity --help");
    for (const char *word : {"disk_id", "root_device", "system_uuid", "mac", "serial", "vendor", "model", "kirin_9x0",
                             "lenovo", "oem_info", "Usage error", "/etc/tavro-quenda/public.pem",
                             "/var/log/tavro-quenda/libtavro-quenda.log"}) {
        EXPECT_TRUE(tqtest::contains(page, word)) << word;
    }
    for (const char *word : {"disk_id", "oem_info"})
        EXPECT_TRUE(tqtest::contains(identity_help.out, word)) << word;
    for (const char *status : {"  0  ", "  1  ", "  2  ", "  3  ", "  4  "})
        EXPECT_TRUE(tqtest::contains(help.out, status)) << status;

    Outcome version = run_cli("-V");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tavro-quenda ", 0), 0u);
}

TEST(Cli, IdentityTextJsonAndSingleFieldsAgree)
{
    Outcome text = run_cli("identity");
    ASSERT_EQ(text.status, 0) << text.err;
    Outcome json = run_cli("identity --json");
    ASSERT_EQ(json.status, 0) << json.err;
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(json.out.c_str()), cJSON_Delete);
    ASSERT_TRUE(root && cJSON_IsObject(root.get())) << json.out;
    EXPECT_FALSE(tqtest::contains(json.out, "\t")) << "pretty JSON is indented with spaces";

    Outcome jq = run_shell(cli() + " identity --json=short | jq -e .");
    EXPECT_EQ(jq.status, 0) << jq.err;
    Outcome short_json = run_cli("identity -Jshort");
    EXPECT_EQ(tqtest::lines_of(short_json.out).size(), 1u);

    std::vector<std::string> lines = tqtest::lines_of(text.out);
    ASSERT_EQ(static_cast<int>(lines.size()), cJSON_GetArraySize(root.get()));
    std::regex line_re(R"(([a-z0-9_]+):\s+(.*))");
    size_t i = 0;
    for (const cJSON *item = root->child; item; item = item->next, ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, line_re)) << lines[i];
        EXPECT_EQ(m[1], item->string) << "text and JSON name the same fields in the same order";
        std::string value = cJSON_IsNull(item)     ? ""
                            : cJSON_IsBool(item)   ? (cJSON_IsTrue(item) ? "yes" : "no")
                            : cJSON_IsString(item) ? item->valuestring
                                                   : "<not text>";
        EXPECT_NE(value, "<not text>");
        EXPECT_EQ(m[2], cJSON_IsNull(item) ? "not available" : value) << item->string;
        EXPECT_FALSE(cJSON_IsString(item) && value.empty()) << item->string << ": empty is not available";

        // Asked for alone: the bare value, and exit 1 when there is none.
        Outcome one = run_cli(std::string("identity -n -o ") + item->string);
        EXPECT_EQ(one.out, value + "\n") << item->string;
        EXPECT_EQ(one.status, cJSON_IsNull(item) ? 1 : 0) << item->string;
        if (cJSON_IsNull(item)) {
            EXPECT_TRUE(tqtest::contains(one.err, std::string("tavro-quenda: identity: ") + item->string + ": not available"));
        }
    }
    Outcome two = run_cli("identity -n -o lenovo,kirin_9x0");
    EXPECT_EQ(two.status, 0);
    EXPECT_EQ(tqtest::lines_of(two.out).size(), 2u);
}

TEST(Cli, DigestAndBase64AgreeWithCoreutilsAndOpenssl)
{
    TempDir d;
    for (size_t size : {0u, 1u, 3u, 57u, 1025u, 100000u}) {
        std::string bytes = random_bytes(size, static_cast<unsigned>(size));
        std::string f = d.file("data", bytes);
        for (auto [option, tool] : {std::pair{"--sha256", "sha256sum"}, {"--sha1", "sha1sum"}, {"--md5", "md5sum"}}) {
            Outcome ours = run_cli(std::string("digest ") + option + " " + f);
            Outcome theirs = run_shell(std::string(tool) + " " + f);
            ASSERT_EQ(ours.status, 0) << ours.err;
            EXPECT_EQ(ours.out, theirs.out) << option << " " << size;
            std::string hex = theirs.out.substr(0, theirs.out.find(' '));
            Outcome check = run_cli(std::string("digest ") + option + " - " + hex + " <" + f);
            EXPECT_EQ(check.status, 0) << check.err;
            EXPECT_EQ(check.out, "result: 1\n-: OK\n");
        }
        Outcome ossl = run_shell("openssl dgst -sha256 -r " + f);
        EXPECT_EQ(run_cli("digest " + f).out.substr(0, 64), ossl.out.substr(0, 64));

        if (size == 0)
            continue;
        Outcome encoded = run_cli("base64 " + f);
        EXPECT_EQ(encoded.out, run_shell("base64 -w0 " + f).out + "\n");
        Outcome url = run_cli("base64 --url <" + f);
        EXPECT_EQ(url.out, run_shell("base64 -w0 " + f + " | sed 's,+,%2B,g; s,/,%2F,g; s,=,%3D,g'").out + "\n");
        // Wrapped coreutils output decodes back to the bytes.
        EXPECT_EQ(run_shell("base64 " + f + " | " + cli() + " base64 -d").out, bytes);
        EXPECT_EQ(run_shell(cli() + " base64 --url " + f + " | " + cli() + " base64 -d --url").out, bytes);
    }
}

TEST(Cli, VerifyAndEncryptWorkWithRealGpg)
{
    Outcome good = run_cli("verify " + kGnupgData + "/hello-dev.asc");
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(good.out, "result: 0\nhello\n");
    Outcome json = run_cli("verify --gpgme -Jshort - <" + kGnupgData + "/hello-dev.asc");
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out, "{\"file\":\"-\",\"result\":0,\"good\":true,\"text\":\"hello\\n\"}\n");
    Outcome other = run_cli("verify --cached -J " + kGnupgData + "/hello-other.asc");
    EXPECT_EQ(other.status, 1);
    EXPECT_TRUE(tqtest::contains(other.out, "\"result\": 1")) << other.out;

    TempDir home;
    std::string gpg = "gpg --batch --quiet --homedir " + sh_quote(home.path);
    ASSERT_EQ(run_shell(gpg + " --import " TQ_KEYS_DIR "/dev-secret.gpg").status, 0);
    Outcome decrypted = run_shell("printf 'a secret\\n' | " + cli() + " encrypt | " + gpg + " --decrypt");
    run_shell("gpgconf --homedir " + sh_quote(home.path) + " --kill gpg-agent");
    EXPECT_EQ(decrypted.status, 0) << decrypted.err;
    EXPECT_EQ(decrypted.out, "a secret\n");
}

TEST(Cli, RecordsRoundTripAndOpensslReadsThem)
{
    TempDir d;
    const std::string rec = d.path + "/rec";
    for (size_t n : {0u, 15u, 16u, 1023u}) {
        std::string text = random_bytes(n, static_cast<unsigned>(n));
        for (char &c : text)
            c = static_cast<char>('a' + static_cast<unsigned char>(c) % 26);
        std::string in = d.file("in", text);
        Outcome w = run_cli("record write " + rec + " <" + in);
        ASSERT_EQ(w.status, 0) << w.err;
        struct stat st {};
        ASSERT_EQ(stat(rec.c_str(), &st), 0);
        EXPECT_EQ(static_cast<size_t>(st.st_size), 16 * ((n + 1 + 15) / 16)) << n;
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        Outcome plain = run_shell("openssl enc -d -aes-128-cbc -nopad -K 7175696c6c6f6e5f706176656d656e74"
                                  " -iv 5a1c0e77d29b4f3806e1a9c47b2d8f13 -in " + rec + " | tr -d '\\0'");
        EXPECT_EQ(plain.out, text) << n;
        Outcome r = run_cli("record read - <" + rec);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, text);
    }
}

TEST(Cli, KeyfileSetRewritesOnlyWhenTheContentChanges)
{
    TempDir d;
    std::string conf = d.file("app.conf", "# kept\n[Main]\nMode=slow\n");
    auto stamp = [&] {
        struct stat st {};
        stat(conf.c_str(), &st);
        return std::pair(st.st_ino, st.st_mtim.tv_nsec + st.st_mtim.tv_sec * 1000000000LL);
    };
    EXPECT_EQ(run_cli("keyfile set " + conf + " Main Mode fast").status, 0);
    auto first = stamp();
    std::string written = tqtest::read_file(conf);
    EXPECT_TRUE(tqtest::contains(written, "# kept\n") && tqtest::contains(written, "[Main]\nMode=fast\n")) << written;
    EXPECT_EQ(run_cli("keyfile set " + conf + " Main Mode fast").status, 0);
    EXPECT_EQ(stamp(), first) << "same content: the file is left alone";
    EXPECT_EQ(run_cli("keyfile get - Main Mode <" + conf).out, "fast\n");
    EXPECT_EQ(run_cli("keyfile set " + d.path + "/new.conf A B c").status, 0);
    EXPECT_EQ(tqtest::read_file(d.path + "/new.conf"), "[A]\nB=c\n");
}

TEST(Cli, BashCompletionOffersCommandsOptionsAndFields)
{
    if (access("/usr/share/bash-completion/bash_completion", R_OK) != 0)
        GTEST_SKIP() << "bash-completion is not installed";
    const std::string script =
        "source /usr/share/bash-completion/bash_completion; source " TQ_COMPLETION "; "
        "c() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); COMP_LINE=\"$*\"; COMP_POINT=${#COMP_LINE}; "
        "COMPREPLY=(); _tavro_quenda; echo \"${COMPREPLY[*]}\"; }; ";
    struct Row {
        std::string words, expected;
    } rows[] = {
        {"tavro-quenda ve", "verify"},
        {"tavro-quenda --v", "--version"},
        {"tavro-quenda identity -o m", "mac model"},
        {"tavro-quenda identity --output mac,sy", "mac,system_uuid"},
        {"tavro-quenda identity --json=s", "--json=short"},
        {"tavro-quenda digest --s", "--sha256 --sha1"},
        {"tavro-quenda keyfile g", "get"},
        {"tavro-quenda record read /nonexistent-dir/", ""},
        {"tavro-quenda base64 --u", "--url"},
    };
    for (const Row &row : rows) {
        Outcome r = run_shell("bash -c " + sh_quote(script + "c " + row.words));
        EXPECT_EQ(r.out, row.expected + "\n") << row.words << r.err;
    }
}

TEST(Cli, UnprivilegedRunStillReports)
{
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to run the tool as an unprivileged user";
    Outcome as_root = run_cli("identity"); // makes sure the log directory exists, owned by root
    ASSERT_EQ(as_root.status, 0);

    Outcome nobody = run_shell("/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups " + cli() + " identity");
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
