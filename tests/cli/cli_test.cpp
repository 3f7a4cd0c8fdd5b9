// SPDX-License-Identifier: LGPL-2.1-or-later
// The tavro-quenda tool as its users run it, on real files: what it adds to
// the library (arguments, exit statuses, messages, output formats, reading
// pipes, writing files). What the library answers is checked by its own tests.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
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

// How the tool is started: a shell word, for command lines and pipelines alike.
const std::string kCli = tqtest::built_program(TQ_CLI);

// Runs a /bin/sh command line in dir, where "tq" starts the tool (and "$TQ" in a command
// line of its own), capturing standard output and error. The library's word about a trace
// log it may not open (when the tests run unprivileged) is left out.
Outcome run_shell(const std::string &command, const std::string &dir = "/")
{
    char out[] = "/tmp/tq-cli-out-XXXXXX", err[] = "/tmp/tq-cli-err-XXXXXX";
    close(mkstemp(out));
    close(mkstemp(err));
    int status = std::system(("TQ=" + tq::os::shell_quote(kCli) + "; tq() { " + kCli + " \"$@\"; }; cd " + dir + " && { " +
                              command + "; } >" + out + " 2>" + err).c_str());
    Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, tqtest::read_file(out),
              std::regex_replace(tqtest::read_file(err), std::regex("Open log file failed: Permission denied\n"), "")};
    unlink(out);
    unlink(err);
    return r;
}

Outcome run_cli(const std::string &args) { return run_shell("tq " + args); }

TEST(Cli, EveryOutcomeHasItsExitStatusAndSaysWhy)
{
    tqtest::Fixture d; // a scratch directory, the rows' working directory; the tool runs on the real system
    for (const char *name : {"/hello-dev.asc", "/hello-other.asc", "/big-dev.asc", "/hello-dev.gpg"})
        d.copy(name, TQ_GNUPG_DATA + std::string(name));
    for (auto [name, text] : {std::pair{"/abc", "abc"}, {"/empty", ""}, {"/victim", "x\n"}, {"/kept.conf", "[G]\nK=v\n"}})
        d.write(name, text);
    // A key file kept behind a link, not the writer's (where the tests run as root) and not
    // world-readable: written where the link points, with the owner and mode it had.
    const std::string kept = "chmod 640 kept.conf && { chown 65534 kept.conf 2>/dev/null; ln -s kept.conf link.conf; } && "
                             "tq keyfile set link.conf G K w && stat -c '%a %u %F' kept.conf && stat -c %F link.conf && "
                             "cat kept.conf";
    const std::string kept_out =
        "640 " + std::to_string(geteuid() == 0 ? 65534 : geteuid()) + " regular file\nsymbolic link\n[G]\nK=w\n";
    // Signatures by the built-in key ("*-dev.*") need its secret half, which the tests hold only
    // for the development key: a build trusting another key leaves those rows out, saying so.
    struct Row {
        const char *command;
        int status;
        const char *err; // after "tavro-quenda: "; "" for a silent standard error
        const char *out = nullptr;
    } rows[] = {
        {"tq", 2, "no command given"},
        {"tq -V extra", 2, "unexpected argument 'extra'"},
        {"tq --frob", 2, "unrecognized option '--frob'"},
        {"tq frob", 2, "unknown command 'frob'"},
        {"tq identity -o mac,frob", 2, "identity: unknown field 'frob'"},
        {"tq identity -J -n", 2, "identity: --json and --noheadings cannot be used together"},
        {"tq identity --json=wide", 2, "identity: --json takes pretty or short, not 'wide'"},
        {"tq identity >/dev/full", 3, "write error: No space left on device"},
        {"tq verify hello-dev.asc", 0, "", "result: 0\nhello\n"},
        {"tq verify ''", 2, "verify: the file name is empty"},
        {"tq verify --cached -J hello-other.asc", 1, "verify: hello-other.asc: not signed by the trusted key",
         "{\n  \"file\": \"hello-other.asc\",\n  \"result\": 1,\n  \"good\": false,\n  \"text\": null\n}\n"},
        {"tq verify --gpgme --cached x", 2, "verify: --gpgme and --cached cannot be used together"},
        {"tq verify /x", 3, "verify: /x: No such file or directory"},
        {"tq verify big-dev.asc", 0, "verify: big-dev.asc: signed text is longer than 4095 bytes and is not shown"},
        {"tq verify hello-dev.gpg", 0, "verify: hello-dev.gpg: signed, but not clear-signed, so no text is returned",
         "result: 0\n"},
        {"tq encrypt <.", 3, "encrypt: standard input: Is a directory"},
        {"tq encrypt <abc | head -n 1", 0, "", "-----BEGIN PGP MESSAGE-----\n"},
        {"tq digest abc && tq digest --sha1 abc && tq digest --md5 abc", 0, "",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  abc\n"
         "a9993e364706816aba3e25717850c26c9cd0d89d  abc\n900150983cd24fb0d6963f7d28e17f72  abc\n"},
        {"tq digest --md5 --sha1 x", 2, "digest: --md5 and --sha1 cannot be used together"},
        // A stream is checked through a copy; upper-case hex is accepted.
        {"cat abc | tq digest --md5 /dev/stdin 900150983CD24FB0D6963F7D28E17F72", 0, "", "result: 1\n/dev/stdin: OK\n"},
        {"tq digest empty 0000000000000000000000000000000000000000000000000000000000000000", 1,
         "digest: empty: digest does not match"},
        {"tq rsa-check abc 'AB C'", 4, "rsa-check: the signature is not Base64"},
        {"head -c 1024 /dev/zero | tr '\\0' a | tq record write rec", 4,
         "record: rec: the text is 1024 characters; a record holds at most 1023; nothing written"},
        // Replaced by a new owner-only file, never written through a link.
        {": >old && chmod 644 old && tq record write old <abc && stat -c %a old && tq record read old", 0, "", "600\nabc"},
        {"ln -s victim link && tq record write link <abc && stat -c '%a %F' link && cat victim", 0, "",
         "600 regular file\nx\n"},
        {"tq keyfile get kept.conf G X", 1, "keyfile: kept.conf: no key 'X' in group [G]"},
        {"tq keyfile set /x/y/z G K v", 3, "keyfile: /x/y/z: not written: cannot create a temporary file: No such file"},
        {"tq keyfile set new.conf A B c && cat new.conf", 0, "", "[A]\nB=c\n"},
        {kept.c_str(), 0, "", kept_out.c_str()},
        {"tq keyfile set kept.conf 'bad]group' K v", 4,
         "keyfile: kept.conf: the group name 'bad]group' holds '[' or ']'; nothing written"},
        {"tq keyfile set kept.conf G K \"$(printf 'v\\nForged=1')\"", 4,
         "keyfile: kept.conf: the value holds a line break; nothing written"},
        {"printf '\\373\\377' | tq base64 --url && tq base64 <abc && printf YWJj | tq base64 -d", 0, "",
         "%2B%2F8%3D\nYWJj\nabc"},
        {"printf YWJ | tq base64 -d", 4, "base64: standard input: not Base64 (result 59: its length is not a multiple of 4)"},
        // Only checked where no public key is installed.
        {"tq rsa-check abc AAAA", 3, "rsa-check: /etc/tavro-quenda/public.pem: No such file or directory"},
        // Root only. Run unprivileged, the tool says no word about the log it may not write (but
        // the library's own, left out by run_shell); a gpg that cannot run is a system error.
        {"setpriv --reuid=65534 --regid=65534 --clear-groups sh -c \"$TQ identity\" >/dev/null", 0, ""},
        {"unshare -m sh -c \"mount --bind /dev/null /usr/bin/gpg && exec $TQ verify abc\"", 3,
         "verify: abc: the check could not run (no private GnuPG home, or /usr/bin/gpg cannot run)"},
    };
    const bool root = geteuid() == 0 && run_shell("unshare -m true && setpriv --help").status == 0;
    for (const Row &row : rows) {
        // (Not gtest's "[  SKIPPED ]" marker: ctest would count the whole test as skipped.)
        if ((tqtest::contains(row.command, "-dev.") && !tq::generated::kTrustedKeyIsDevelopment) ||
            (tqtest::contains(row.err, "public.pem") && access("/etc/tavro-quenda/public.pem", F_OK) == 0) ||
            (tqtest::contains(row.command, "-c \"") && !root)) {
            std::cout << "row not run here: " << row.command << "\n";
            continue;
        }
        SCOPED_TRACE(row.command);
        Outcome r = run_shell(row.command, d.root());
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(*row.err ? tqtest::contains(r.err, "tavro-quenda: " + std::string(row.err)) : r.err.empty())
            << r.err;
        EXPECT_TRUE(!row.out || r.out == row.out) << r.out;
        EXPECT_FALSE(tqtest::contains(r.err, "GLib")) << r.err; // the tool speaks in its own words
    }
    EXPECT_EQ(access(d.host("/rec").c_str(), F_OK), -1) << "a refused record text must not create the file";
}

// Pipes and FIFOs the user names are read like files, also past the first read.
TEST(Cli, DigestReadsPipesAsItReadsFiles)
{
    tqtest::Fixture d;
    const std::string digest = run_shell("seq 30000 >data && tq digest --sha1 data", d.root()).out.substr(0, 40) + "  ";
    for (const char *command : {"cat data | tq digest --sha1 /dev/stdin", "cat data | tq digest --sha1 -",
                                "mkfifo fifo && { cat data >fifo & } && tq digest --sha1 fifo"})
        EXPECT_EQ(run_shell(command, d.root()).out.substr(0, 42), digest) << command;
}

TEST(Cli, HelpOfEveryCommandExitsZeroAndAgreesWithTheManualPage)
{
    // The manual page's text without roff's font changes and hyphen escapes.
    const std::string page = std::regex_replace(tqtest::read_file(TQ_MAN_PAGE), std::regex(R"(\\f[BIR]|\\(?=-))"), "");
    for (std::string command : {"", "identity", "verify", "encrypt", "digest", "rsa-check", "record", "keyfile", "base64"}) {
        SCOPED_TRACE(command);
        Outcome r = run_cli(command + " --help");
        EXPECT_EQ(run_cli(command + " -h"), r);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out.rfind("Usage: tavro-quenda " + command, 0), 0u) << r.out;
        EXPECT_EQ(r.err, "");
        // Every long option the help names, the manual page names too.
        for (std::smatch m; std::regex_search(r.out, m, std::regex("--[a-z0-9][a-z0-9-]*")); r.out = m.suffix())
            EXPECT_TRUE(tqtest::contains(page, m.str())) << m.str() << " is not in the manual page";
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
    for (const std::string &text : {run_cli("identity --help").out, run_cli("verify --help").out, page})
        EXPECT_TRUE(tqtest::contains(squeezed(text), "-J,--json[=pretty|short]"));
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
    for (const std::string &line : tqtest::lines_of(text.out)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, std::regex(R"(([a-z0-9_]+):\s+(\S.*))"))) << line;
        // Asked for alone: the bare value, or an empty line, a word why and exit 1 when there is none.
        const std::string field = m[1], value = m[2] == "not available" ? "" : m[2].str();
        const Outcome alone = value.empty() ? Outcome{1, "\n", "tavro-quenda: identity: " + field + ": not available\n"}
                                            : Outcome{0, value + "\n", ""};
        EXPECT_EQ(run_cli("identity -n -o " + field), alone);
    }
}

TEST(Cli, BashCompletionOffersCommandsOptionsAndFields)
{
    if (access("/usr/share/bash-completion/bash_completion", R_OK) != 0)
        GTEST_SKIP() << "bash-completion is not installed";
    for (auto [line, expected] : {std::pair{"ve", "verify"}, {"--v", "--version"}, {"identity -o m", "mac model"},
                                  {"identity --output mac,sy", "mac,system_uuid"}, {"identity --json=", "pretty short"},
                                  {"verify --json=s", "short"}, {"digest --s", "--sha256 --sha1"}, {"keyfile g", "get"},
                                  {"record read /nonexistent-dir/", ""}, {"base64 --u", "--url"}}) {
        // Words as bash hands them over: split at blanks and around "=" (COMP_WORDBREAKS),
        // the last one being the word under the cursor.
        const std::string script = "source /usr/share/bash-completion/bash_completion; source " TQ_COMPLETION
                                   "; COMP_LINE=" + tq::os::shell_quote("tavro-quenda " + std::string(line)) +
                                   "; COMP_POINT=${#COMP_LINE}; COMP_WORDS=(${COMP_LINE//=/ = }); [[ $COMP_LINE == *= ]]"
                                   " && COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tavro_quenda;"
                                   " echo \"${COMPREPLY[*]}\"";
        EXPECT_EQ(run_shell("bash -c " + tq::os::shell_quote(script)).out, expected + std::string("\n")) << line;
    }
}

} // namespace
