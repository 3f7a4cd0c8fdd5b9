// SPDX-License-Identifier: LGPL-2.1-or-later
// The tavro-quenda tool as its users run it: real files, real gpg, openssl,
// jq and coreutils beside it.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <ostream>
#include <regex>
#include <string>

#include "built_program.h"
#include "fixture.h"
#include "results.h"
#include "tavro_quenda_trusted_key.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
    bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &r, std::ostream *os) { *os << "status " << r.status << "\nout: " << r.out << "\nerr: " << r.err; }

// A run that succeeded, printed out and said nothing on standard error.
Outcome ok(const std::string &out = "") { return {0, out, ""}; }

// Runs a /bin/sh command line, capturing standard output and error. The library's word
// about a trace log it may not open (when the tests run unprivileged) is left out.
Outcome run_shell(const std::string &command)
{
    char out[] = "/tmp/tq-cli-out-XXXXXX", err[] = "/tmp/tq-cli-err-XXXXXX";
    close(mkstemp(out));
    close(mkstemp(err));
    int status = std::system(("{ " + command + "; } >" + out + " 2>" + err).c_str());
    Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, tqtest::read_file(out),
              std::regex_replace(tqtest::read_file(err), std::regex("Open log file failed: Permission denied\n"), "")};
    unlink(out);
    unlink(err);
    return r;
}

// How the tool is started: a shell word, for command lines and pipelines alike.
const std::string kCli = tqtest::built_program(TQ_CLI);

Outcome run_cli(const std::string &args) { return run_shell(kCli + " " + args); }

// Signatures by the built-in key, and decryption of what is encrypted to it,
// need its secret half: the tests hold it only for the development key. A
// build that trusts another key skips those rows, saying so.
bool skipped_without_development_key(const std::string &row)
{
    if (tq::generated::kTrustedKeyIsDevelopment)
        return false;
    // (Not gtest's "[  SKIPPED ]" marker: ctest would count the whole test as skipped.)
    std::cout << "row not run: '" << row << "' needs the secret half of the built-in key, "
              << "and this build trusts a key other than the development key\n";
    return true;
}

TEST(Cli, EveryOutcomeHasItsExitStatusAndSaysWhy)
{
    tqtest::Fixture d; // a scratch directory, the rows' working directory; the tool runs on the real system
    for (const char *name : {"/hello-dev.asc", "/hello-other.asc", "/big-dev.asc", "/hello-dev.gpg"})
        d.copy(name, TQ_GNUPG_DATA + std::string(name));
    for (auto [name, text] : {std::pair{"/plain.txt", "just text\n"}, {"/empty", ""}, {"/app.conf", "[G]\nK=v\n"},
                              {"/short.b64", "YWJ\n"}})
        d.write(name, text);
    d.write("/long.txt", std::string(1024, 'a'));
    // A key file kept behind a link, not the writer's and not world-readable; a record file
    // that was 0644, and a record name that is a link.
    d.write("/kept.conf", "[G]\nK=v\n", 0640);
    d.symlink("kept.conf", "/link.conf");
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(d.host("/kept.conf").c_str(), 65534, 65534), 0);
    }
    const std::string kept = "640 " + std::to_string(root ? 65534 : geteuid()) + " regular file\nsymbolic link\n[G]\nK=w\n";
    d.write("/old.rec", "", 0644);
    d.write("/victim", "secret\n");
    d.symlink("victim", "/rec-link");
    // One row per way each command ends; what the library answers is checked by its own tests.
    struct Row {
        const char *args;
        int status;
        const char *err; // after "tavro-quenda: "; "" for a silent standard error
        const char *out = nullptr;
        bool signed_by_built_in_key = false;
    } rows[] = {
        {"", 2, "no command given"},
        {"-V extra", 2, "unexpected argument 'extra'"},
        {"--frob", 2, "unrecognized option '--frob'"},
        {"frob", 2, "unknown command 'frob'"},
        {"identity -o mac,frob", 2, "identity: unknown field 'frob'"},
        {"identity -J -n", 2, "identity: --json and --noheadings cannot be used together"},
        {"identity --json=wide", 2, "identity: --json takes pretty or short, not 'wide'"},
        {"identity >/dev/full", 3, "write error: No space left on device"},
        {"verify hello-dev.asc", 0, "", "result: 0\nhello\n", true},
        {"verify ''", 2, "verify: the file name is empty"},
        {"verify --cached -J hello-other.asc", 1, "verify: hello-other.asc: not signed by the trusted key",
         "{\n  \"file\": \"hello-other.asc\",\n  \"result\": 1,\n  \"good\": false,\n  \"text\": null\n}\n"},
        {"verify --gpgme --cached x", 2, "verify: --gpgme and --cached cannot be used together"},
        {"verify /x", 3, "verify: /x: No such file or directory"},
        {"verify big-dev.asc", 0, "verify: big-dev.asc: signed text is longer than 4095 bytes and is not shown", nullptr,
         true},
        {"verify hello-dev.gpg", 0, "verify: hello-dev.gpg: signed, but not clear-signed, so no text is returned",
         "result: 0\n", true},
        {"encrypt <.", 3, "encrypt: standard input: Is a directory"},
        {"digest --md5 --sha1 x", 2, "digest: --md5 and --sha1 cannot be used together"},
        {"digest empty 0000000000000000000000000000000000000000000000000000000000000000", 1,
         "digest: empty: digest does not match"},
        {"rsa-check plain.txt 'AB C'", 4, "rsa-check: the signature is not Base64"},
        {"record write rec <long.txt", 4,
         "record: rec: the text is 1024 characters; a record holds at most 1023; nothing written"},
        // Replaced by a new owner-only file, never written through a link.
        {"record write old.rec <plain.txt && stat -c %a old.rec", 0, "", "600\n"},
        {"record write rec-link <plain.txt && stat -c '%a %F' rec-link && cat victim", 0, "", "600 regular file\nsecret\n"},
        {"keyfile get app.conf G X", 1, "keyfile: app.conf: no key 'X' in group [G]"},
        {"keyfile set /x/y/z G K v", 3, "keyfile: /x/y/z: not written: cannot create a temporary file: No such file"},
        {"keyfile set new.conf A B c && cat new.conf", 0, "", "[A]\nB=c\n"},
        // Written where the link points, with the owner and mode it had.
        {"keyfile set link.conf G K w && stat -c '%a %u %F' kept.conf && stat -c %F link.conf && cat kept.conf", 0, "",
         kept.c_str()},
        {"keyfile set kept.conf 'bad]group' K v", 4,
         "keyfile: kept.conf: the group name 'bad]group' holds '[' or ']'; nothing written"},
        {"keyfile set kept.conf G K \"$(printf 'v\\nForged=1')\"", 4,
         "keyfile: kept.conf: the value holds a line break; nothing written"},
        {"base64 -d <short.b64", 4, "base64: standard input: not Base64 (result 59: its length is not a multiple of 4)"},
        // Only checked where no public key is installed.
        {"rsa-check plain.txt AAAA", 3, "rsa-check: /etc/tavro-quenda/public.pem: No such file or directory"},
    };
    for (const Row &row : rows) {
        if (tqtest::contains(row.err, "public.pem") && access("/etc/tavro-quenda/public.pem", F_OK) == 0)
            continue;
        if (row.signed_by_built_in_key && skipped_without_development_key(row.args))
            continue;
        SCOPED_TRACE(row.args);
        Outcome r = run_shell("cd " + d.root() + " && " + kCli + " " + row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(*row.err ? tqtest::contains(r.err, "tavro-quenda: " + std::string(row.err)) : r.err.empty())
            << r.err;
        EXPECT_TRUE(!row.out || r.out == row.out) << r.out;
        EXPECT_FALSE(tqtest::contains(r.err, "GLib")) << r.err; // the tool speaks in its own words
    }
    EXPECT_EQ(access(d.host("/rec").c_str(), F_OK), -1) << "a refused record text must not create the file";
}

TEST(Cli, AGpgThatCannotRunIsASystemError)
{
    // /usr/bin/gpg is hidden in a mount namespace of the tool's own.
    if (geteuid() != 0 || run_shell("unshare -m true").status != 0)
        GTEST_SKIP() << "hiding /usr/bin/gpg needs root and mount namespaces";
    for (const char *how : {"", "--cached ", "--gpgme "}) {
        Outcome r = run_shell("unshare -m sh -c 'mount --bind /dev/null /usr/bin/gpg && exec " + kCli + " verify " + how +
                              TQ_GNUPG_DATA "/hello-dev.asc'");
        EXPECT_EQ(r.status, 3) << how << r.err;
        EXPECT_TRUE(tqtest::contains(r.err, "/usr/bin/gpg cannot run")) << how << r.err;
    }
}

TEST(Cli, HelpOfEveryCommandExitsZeroAndAgreesWithTheManualPage)
{
    // The manual page's text without roff's font changes and hyphen escapes.
    const std::string page = std::regex_replace(tqtest::read_file(TQ_MAN_PAGE), std::regex(R"(\\f[BIR]|\\(?=-))"), "");
    for (std::string command : {"", "identity", "verify", "encrypt", "digest", "rsa-check", "record", "keyfile", "base64"}) {
        for (const char *flag : {" --help", " -h"}) {
            SCOPED_TRACE(command + flag);
            Outcome r = run_cli(command + flag);
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.out.rfind("Usage: tavro-quenda " + command, 0), 0u) << r.out;
            EXPECT_EQ(r.err, "");
            // Every long option the help names, the manual page names too.
            for (std::smatch m; std::regex_search(r.out, m, std::regex("--[a-z0-9][a-z0-9-]*")); r.out = m.suffix())
                EXPECT_TRUE(tqtest::contains(page, m.str())) << m.str() << " is not in the manual page";
        }
    }
    const std::string identity_help = run_cli("identity --help").out;
    for (const std::string &line : tqtest::lines_of(run_cli("identity").out)) {
        const std::string field = line.substr(0, line.find(':'));
        EXPECT_TRUE(tqtest::contains(page, field) && tqtest::contains(identity_help, field)) << field << " is not documented";
    }
    EXPECT_TRUE(std::regex_search(run_cli("--help").out, std::regex("  0  [^]*  1  [^]*  2  [^]*  3  [^]*  4  ")));
    EXPECT_EQ(run_cli("-V").out.rfind("tavro-quenda ", 0), 0u);
    // The JSON option is written alike in both, blanks aside.
    const auto squeezed = [](const std::string &text) { return std::regex_replace(text, std::regex(R"([ "]|\.BR)"), ""); };
    for (const char *command : {"identity", "verify"})
        EXPECT_TRUE(tqtest::contains(squeezed(run_cli(std::string(command) + " --help").out), "-J,--json[=pretty|short]"));
    EXPECT_TRUE(tqtest::contains(squeezed(page), "-J,--json[=pretty|short]"));
}

TEST(Cli, IdentityTextJsonAndSingleFieldsAgree)
{
    Outcome text = run_cli("identity"), json = run_cli("identity --json");
    ASSERT_EQ(text.status, 0) << text.err;
    // jq reads the JSON: short JSON is its compact form, and the text and the bare values say the same.
    const std::string jq = "printf %s " + tq::os::shell_quote(json.out) + " | jq ";
    EXPECT_EQ(run_cli("identity --json=short"), run_shell(jq + "-c ."));
    EXPECT_EQ(std::regex_replace(text.out, std::regex("(^|\n)([a-z0-9_]+): +"), "$1$2: "),
              run_shell(jq + R"jq(-r 'to_entries[] | "\(.key): \(.value | if . == null then "not available"
                  elif . == true then "yes" elif . == false then "no" else . end)"')jq").out);
    EXPECT_EQ(run_cli("identity -n -o lenovo,kirin_9x0"),
              run_shell(jq + R"(-r '.lenovo, .kirin_9x0 | if . then "yes" else "no" end')"));

    for (const std::string &line : tqtest::lines_of(text.out)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, std::regex(R"(([a-z0-9_]+):\s+(\S.*))"))) << line;
        const std::string field = m[1], value = m[2] == "not available" ? "" : m[2].str();
        // Asked for alone: the bare value, or an empty line, a word why and exit 1 when there is none.
        Outcome none{1, "\n", "tavro-quenda: identity: " + field + ": not available\n"};
        EXPECT_EQ(run_cli("identity -n -o " + field), value.empty() ? none : ok(value + "\n"));
    }
}

// The tool's output read by the real tools; sizes and block edges are the library tests' business.
TEST(Cli, OutputAgreesWithCoreutilsOpensslAndGpg)
{
    tqtest::Fixture d, home;
    const std::string f = d.host("/data"), text = d.host("/text"), rec = d.host("/rec");
    const std::string gpg = "gpg --batch --quiet --homedir " + home.root();
    ASSERT_EQ(run_shell(gpg + " --import " TQ_KEYS_DIR "/dev-secret.gpg").status, 0);
    // Every byte value for the digests and Base64; a record holds text.
    std::string bytes(100000, '\0'), words;
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 167 + i / 256);
    while (words.size() < 1000)
        words += "line " + std::to_string(words.size()) + "\n";
    d.write("/data", bytes);
    d.write("/text", words);
    const std::pair<std::string, std::string> rows[] = {
        {kCli + " digest --sha256 " + f, "sha256sum " + f},
        {kCli + " digest --sha1 " + f, "sha1sum " + f},
        {kCli + " digest --md5 " + f, "md5sum " + f},
        // The value coreutils gives is the one the tool accepts.
        {kCli + " digest --md5 - $(md5sum " + f + " | cut -d' ' -f1) <" + f, "printf 'result: 1\\n-: OK\\n'"},
        // Pipes the user names are read like files.
        {"cat " + f + " | " + kCli + " digest /dev/stdin", "cat " + f + " | sha256sum /dev/stdin"},
        {"bash -c '" + kCli + " digest --sha1 <(cat " + f + ")'", "bash -c 'sha1sum <(cat " + f + ")'"},
        {"cat " + f + " | " + kCli + " digest --md5 /dev/stdin $(md5sum " + f + " | cut -d' ' -f1)",
         "printf 'result: 1\\n/dev/stdin: OK\\n'"},
        {kCli + " base64 " + f, "base64 -w0 " + f + "; echo"},
        {kCli + " base64 --url <" + f, "base64 -w0 " + f + " | sed 's,+,%2B,g; s,/,%2F,g; s,=,%3D,g'; echo"},
        {"base64 " + f + " | " + kCli + " base64 -d", "cat " + f},
        // Owner-only, whole blocks with room for the closing zero, and openssl reads the text back.
        {kCli + " record write " + rec + " <" + text + " && stat -c '%s %a' " + rec +
             " && openssl enc -d -aes-128-cbc -nopad -in " + rec +
             " -K 7175696c6c6f6e5f706176656d656e74 -iv 5a1c0e77d29b4f3806e1a9c47b2d8f13 | tr -d '\\0'",
         "echo '" + std::to_string(words.size() / 16 * 16 + 16) + " 600'; cat " + text},
        {kCli + " record read - <" + rec, "cat " + text},
        {"printf 'a secret\\n' | " + kCli + " encrypt | " + gpg + " --decrypt", "printf 'a secret\\n'"},
    };
    for (const auto &[tool, reference] : rows) {
        if (tqtest::contains(tool, " encrypt ") && skipped_without_development_key(tool))
            continue;
        EXPECT_EQ(run_shell(tool), run_shell(reference)) << tool;
    }
    run_shell("gpgconf --homedir " + home.root() + " --kill gpg-agent");
}

TEST(Cli, BashCompletionOffersCommandsOptionsAndFields)
{
    if (access("/usr/share/bash-completion/bash_completion", R_OK) != 0)
        GTEST_SKIP() << "bash-completion is not installed";
    // Words as bash hands them over: split at blanks and around "=" (COMP_WORDBREAKS),
    // the last one being the word under the cursor.
    auto complete = [](const std::string &line) {
        std::string words = "'tavro-quenda'", word;
        for (char ch : " " + line + "\x01") {
            if (ch == ' ' || ch == '=' || ch == '\x01') {
                if (!word.empty() || ch == '\x01')
                    words += " " + tq::os::shell_quote(word);
                word.clear();
                if (ch == '=')
                    words += " '='";
            } else {
                word += ch;
            }
        }
        return "source /usr/share/bash-completion/bash_completion; source " TQ_COMPLETION "; COMP_WORDS=(" + words +
               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMP_LINE=" + tq::os::shell_quote("tavro-quenda " + line) +
               "; COMP_POINT=${#COMP_LINE}; COMPREPLY=(); _tavro_quenda; echo \"${COMPREPLY[*]}\"";
    };
    for (auto [line, expected] : {std::pair{"ve", "verify"}, {"--v", "--version"}, {"identity -o m", "mac model"},
                                  {"identity --output mac,sy", "mac,system_uuid"}, {"identity --json=", "pretty short"},
                                  {"verify --json=s", "short"}, {"digest --s", "--sha256 --sha1"}, {"keyfile g", "get"},
                                  {"record read /nonexistent-dir/", ""}, {"base64 --u", "--url"}})
        EXPECT_EQ(run_shell("bash -c " + tq::os::shell_quote(complete(line))).out, expected + std::string("\n")) << line;
}

TEST(Cli, UnprivilegedRunStillReports)
{
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to run the tool as an unprivileged user";
    Outcome as_root = run_cli("identity"); // makes sure the log directory exists, owned by root
    ASSERT_EQ(as_root.status, 0);
    Outcome nobody = run_shell("/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups " + kCli + " identity");
    EXPECT_EQ(nobody.status, 0) << nobody.err;
    EXPECT_EQ(tqtest::lines_of(nobody.out).size(), tqtest::lines_of(as_root.out).size());
    // No word about the log but the library's own that it may not write there (left out by run_shell).
    EXPECT_FALSE(tqtest::contains(nobody.err, "log")) << nobody.err;
}

} // namespace
