// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification and encryption against the real gpg, with the
// development key the default build embeds.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <tuple>
#include <thread>

#include "built_program.h"
#include "integrity/gnupg.h"
#include "peer_tools.h"
#include "tavro_quenda_trusted_key.h"

namespace fs = std::filesystem;
using tqtest::contains;

namespace {

const std::string kSource = TQ_SOURCE_DIR;
const std::string kTestKeys = kSource + "/tests/keys/test-only/";

std::string data(const std::string &name) { return tqtest::read_file(kSource + "/tests/integrity/data/gnupg/" + name); }

// The development key's signed "hello\n", with one byte of the body changed.
std::string tampered_hello()
{
    std::string text = data("hello-dev.asc");
    return text.replace(text.find("hello\n"), 6, "hellO\n");
}

// The gpg the library runs, by this absolute path whatever PATH holds.
const std::string kGpg = "/usr/bin/gpg";

// Live gpg-agent processes whose command line mentions needle (a zombie's is empty).
int agents_mentioning(const std::string &needle)
{
    int found = 0;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/proc", ec)) {
        std::string cmdline = tqtest::read_file(entry.path() / "cmdline");
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        found += tqtest::read_file(entry.path() / "comm") == "gpg-agent\n" && contains(cmdline, needle);
    }
    return found;
}

// An agent asked to stop takes a moment to go.
bool no_agent_mentioning(const std::string &needle)
{
    for (int i = 0; i < 50 && agents_mentioning(needle) > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return agents_mentioning(needle) == 0;
}

int shell(const std::string &command)
{
    int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a verifier hands back, as "code|content|length": "<null>" for no
// content, "-" for a length it left alone.
using Verifier = int32_t (*)(const char *, char **, size_t *);
constexpr size_t kUntouched = 4242;
std::string outcome(Verifier verify, const std::string &path)
{
    char *content = nullptr;
    size_t len = kUntouched;
    const int32_t code = verify(path.c_str(), &content, &len);
    return std::to_string(code) + "|" + tqtest::take(content) + "|" + (len == kUntouched ? "-" : std::to_string(len));
}

class Gnupg : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char *home = ::getenv("GNUPGHOME"))
            saved_home_ = home;
        for (const char *dir : {"/tmp", "/var/log", "/data", "/home/gnupg"})
            fx_.mkdir(dir);
        // Nothing here may use the invoking user's own GnuPG home.
        fs::permissions(fx_.host("/home/gnupg"), fs::perms::owner_all);
        ::setenv("GNUPGHOME", fx_.host("/home/gnupg").c_str(), 1);
        leaks_.emplace(tqtest::gnupg_temp_prefixes());
        wrap_gpg();
    }

    void TearDown() override
    {
        EXPECT_TRUE(leaks_->clean());
        EXPECT_TRUE(fs::is_empty(fx_.host("/tmp"))) << "something was left in the fixture's /tmp";
        EXPECT_TRUE(no_agent_mentioning(fx_.root())) << "a key agent outlived the test";
        saved_home_ ? ::setenv("GNUPGHOME", saved_home_->c_str(), 1) : ::unsetenv("GNUPGHOME");
    }

    // A file in the fixture; its path as the library sees it.
    std::string put(const std::string &name, const std::string &text)
    {
        fx_.write("/data/" + name, text);
        return "/data/" + name;
    }

    // The library's gpg under the fixture's root: the real one, each start
    // counted; the shell text first runs before it.
    void wrap_gpg(std::string first = "") { fx_.script(kGpg, first + "\nexec " + kGpg + " \"$@\""); }
    size_t gpg_starts() const { return fx_.calls(kGpg).size(); }

    tqtest::Fixture fx_;
    std::optional<tqtest::LeakCheck> leaks_;
    std::optional<std::string> saved_home_;
};

// The signed fixtures are signed by the development key.
class SignedGnupg : public Gnupg {
    void SetUp() override
    {
        Gnupg::SetUp();
        if (!tq::generated::kTrustedKeyIsDevelopment)
            GTEST_SKIP() << "the signed fixtures need the development key, which this build does not trust";
    }
};

TEST_F(Gnupg, TheSignedBodyIsCutOutOfTheTextAndOnlyTheFirst4095BytesAreRead)
{
    const std::string head = "-----BEGIN PGP SIGNED MESSAGE-----\n", hello = data("hello-dev.asc");
    const std::pair<std::string, std::string> cases[] = {
        {hello, "0|hello\n|6"},
        // Exactly one header line is assumed: a second one loses its first character.
        {head + "Hash: SHA256\nComment: x\n\nbody\n-----BEGIN PGP SIGNATURE-----\n", "0|omment: x\n\nbody\n|16"},
        // Text before the marker is skipped; dash-escaped lines stay as they are.
        {"junk\n" + head + "Hash: SHA1\n\n- -dash\n-----BEGIN PGP SIGNATURE-----", "0|- -dash\n|8"},
        {"", "-1||77"}, {"hello\n", "-1||77"}, {"-----BEGIN PGP SIGNED MESSAGE-----", "-1||77"},
        {head + "Hash: SHA1\n\nno signature\n", "-1||77"},
        // Texts that end right after the header line.
        {head + "Hash: SHA1\n", "-1||77"}, {head + "\n\n", "-1||77"},
    };
    for (const auto &[text, expected] : cases) {
        // Exactly sized heap buffers, so that the sanitizer sees any over-read.
        std::unique_ptr<char[]> body(new char[text.size() + 1]);
        size_t len = 77;
        const int32_t rc = extract_signed_message(tqtest::exact_copy(text).get(), body.get(), &len);
        EXPECT_EQ(expected, std::to_string(rc) + "|" + (rc == 0 ? body.get() : "") + "|" + std::to_string(len)) << text;
    }

    const std::string top = head + "Hash: SHA1\n\n", marker = "-----BEGIN PGP SIGNATURE-----\n";
    // The marker's last character is the 4095th byte of the file, then the 4096th.
    const size_t fits = 4095 - top.size() - marker.size() + 1;
    size_t len = 5;
    EXPECT_NE("<null>", tqtest::take(get_custom_info(put("a", top + std::string(fits, 'a') + marker).c_str(), &len)));
    EXPECT_EQ(fits, len);
    len = 5;
    EXPECT_EQ(nullptr, get_custom_info(put("b", top + std::string(fits + 1, 'a') + marker).c_str(), &len));
    EXPECT_EQ(nullptr, get_custom_info("/data/missing.asc", &len));
    EXPECT_EQ(nullptr, get_custom_info(nullptr, &len));
    EXPECT_EQ(5u, len);
}

TEST_F(Gnupg, TrustedKeyRecordMatchesWhatGpgSaysAndTheTempKeyFileHoldsIt)
{
    const tq::TrustedKey &key = tq::trusted_key[0];
    const std::string bytes(reinterpret_cast<const char *>(key.data), key.length);
    EXPECT_EQ(tq::generated::kTrustedKeyIsDevelopment ? tqtest::read_file(kTestKeys + "dev-public.gpg") : bytes, bytes);
    // Ask gpg about the embedded bytes themselves.
    fx_.write("/home/gnupg/gpg.conf", "no-autostart\n");
    fx_.write("/key.gpg", bytes);
    ASSERT_EQ(0, shell("gpg --homedir '" + fx_.host("/home/gnupg") + "' --batch --with-colons --show-keys '" +
                       fx_.host("/key.gpg") + "' > '" + fx_.host("/listing") + "' 2>/dev/null"));
    const std::string colons = fx_.read("/listing");
    EXPECT_TRUE(contains(colons, "\nfpr:::::::::" + std::string(key.fingerprint) + ":")) << colons;
    EXPECT_TRUE(contains(colons, ":" + std::string(key.key_id) + ":" + std::to_string(key.created) + ":")) << colons;

    const std::string path = tqtest::take(write_temp_pubkey());
    EXPECT_EQ(0u, path.rfind("/tmp/pubkey_", 0)) << path;
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(fx_.host(path)).permissions());
    EXPECT_EQ(bytes, fx_.read(path));
    ::unlink(fx_.host(path).c_str());
}

TEST_F(SignedGnupg, EachVerifierAcceptsOnlyTheTrustedKeyWhateverThePathAndLeavesNoAgent)
{
    const std::string hello = data("hello-dev.asc"), big = data("big-dev.asc"), other = data("hello-other.asc"),
                      tampered = tampered_hello(), plain = "just text\n", binary = data("hello-dev.gpg"),
                      detached = data("empty-dev.asc");
    const std::string ok = "0|hello\n|6", no = "1|<null>|-", cached_no = "1|<null>|0";
    const struct {
        std::string name;
        const std::string *text; // null: no such file
        std::string by_cmd, by_cache, by_gpgme;
    } rows[] = {
        {"hello.asc", &hello, ok, ok, ok},
        // Blanks and shell syntax in a path are just characters.
        {"it's a $(touch pwned) `touch pwned2`; file.asc", &hello, ok, ok, ok},
        // A good signature over a text too long to hand back.
        {"big.asc", &big, "0|<null>|-", "0|<null>|0", "0|<null>|-"},
        // Signed, but not clear-signed: only GPGME hands the text back.
        {"hello.gpg", &binary, "0|<null>|-", "0|<null>|0", ok},
        // A detached signature over empty data, alone: it vouches for no text.
        {"empty.asc", &detached, no, cached_no, no},
        {"other.asc", &other, no, cached_no, "14|<null>|-"},
        // gpg marks a bad signature red, and red is asked before the status code.
        {"tampered.asc", &tampered, no, cached_no, "50|<null>|-"},
        // gpg finds no OpenPGP data at all here, and the verify operation fails.
        {"plain.txt", &plain, no, cached_no, "1|<null>|-"},
        // A file that cannot be read bypasses the cache: the cached route leaves the length alone too.
        {"missing.asc", nullptr, no, no, "49|<null>|-"},
    };
    for (const auto &row : rows) {
        const std::string path = row.text ? put(row.name, *row.text) : "/data/" + row.name;
        EXPECT_EQ(row.by_cmd, outcome(gpg_verify_cmd, path)) << row.name;
        EXPECT_EQ(row.by_cache, outcome(gpg_verify_cmd_cached, path)) << row.name;
        EXPECT_EQ(row.by_gpgme, outcome(gpg_verify, path)) << row.name;
    }
    for (Verifier verify : {gpg_verify_cmd, gpg_verify_cmd_cached, gpg_verify})
        EXPECT_EQ(0, verify("/data/hello.asc", nullptr, nullptr));
    const std::string log = fx_.trace_log();
    // The private homes' removal is seen only in the trace.
    for (const char *trace : {"run_verify verify return success", "remove_directory: /tmp/gpgdir-"})
        EXPECT_TRUE(contains(log, trace)) << trace;
    // Checked at once, not after a grace period: nothing may have started a key agent.
    EXPECT_EQ(0, agents_mentioning("gpgdir-"));
    EXPECT_EQ(0, run_verify("/tmp/no-such-home", "/data/other.asc"));
    EXPECT_EQ(0, run_verify(nullptr, "/data/other.asc"));

    // A relative name that looks like an option is still a file name.
    const fs::path cwd = fs::current_path();
    fs::current_path(fx_.host("/data"));
    put("--output=pwned3", hello);
    const std::string relative = outcome(gpg_verify_cmd, "--output=pwned3");
    fs::current_path(cwd);
    EXPECT_EQ(ok, relative);
    for (const char *planted : {"pwned", "pwned2", "pwned3"})
        EXPECT_FALSE(fs::exists(fx_.host("/data/") + planted) || fs::exists(cwd / planted)) << planted;
}

// Replaces the first match of from in text.
std::string edited(std::string text, const std::string &from, const std::string &to)
{
    return text.replace(text.find(from), from.size(), to);
}

TEST_F(SignedGnupg, EachVerifierHandsBackTheTextGpgVerifiedOfOneClearSignedMessage)
{
    const std::string hello = data("hello-dev.asc"), no = "1|<null>|-", ok = "0|hello\n|6";
    std::string crlf;
    for (char c : hello)
        crlf += c == '\n' ? "\r\n" : std::string(1, c);
    // gpg skips text around the block it verifies; a forged block whose
    // markers carry a prefix was once cut out as the body.
    const std::string forged = "x-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA512\n\nforged\n"
                               "x-----BEGIN PGP SIGNATURE-----\n\n";
    const struct {
        std::string text, by_cmd, by_gpgme;
    } rows[] = {
        {forged + hello, no, ok}, {hello + hello, no, no}, {"text\n" + hello, no, ok}, {hello + "text\n", no, ok},
        {hello + "x-----BEGIN PGP SIGNATURE-----\n", no, ok},
        {hello + hello.substr(hello.find("-----BEGIN PGP SIGNATURE-----")), no, ok},
        // Blank lines around the one message are fine.
        {"\n \n" + hello + "\n\t\n", ok, ok},
        // Edits the signature does not see: the text is gpg's, never the edited one.
        {edited(hello, "hello\n", "hello \t \n"), ok, ok},
        {edited(hello, "hello\n", "- hello\n"), ok, ok},
        {edited(hello, "Hash: SHA512\n", "Hash: SHA512\nHash: SHA256\n"), ok, ok},
        {edited(hello, "hello\n", "hello\r\n"), "0|hello\r\n|7", "0|hello\r\n|7"},
        {crlf, "0|hello\r\n|7", "0|hello\r\n|7"},
    };
    int i = 0;
    for (const auto &row : rows) {
        const std::string path = put("wrapped" + std::to_string(++i) + ".asc", row.text);
        EXPECT_EQ(row.by_cmd, outcome(gpg_verify_cmd, path)) << row.text;
        // The cached route hands back a zero length with a refusal, and the same again from the cache.
        const std::string cached = row.by_cmd == no ? "1|<null>|0" : row.by_cmd;
        EXPECT_EQ(cached, outcome(gpg_verify_cmd_cached, path)) << row.text;
        EXPECT_EQ(cached, outcome(gpg_verify_cmd_cached, path)) << row.text;
        EXPECT_EQ(row.by_gpgme, outcome(gpg_verify, path)) << row.text;
    }
}

TEST_F(SignedGnupg, AFileReplacedRightAfterGpgReadItChangesNothing)
{
    const std::string path = put("swapped.asc", data("hello-dev.asc"));
    const std::string forged = "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA512\n\nforged\n" +
                               data("hello-dev.asc").substr(data("hello-dev.asc").find("-----BEGIN PGP SIGNATURE"));
    fx_.write("/forged.asc", forged);
    // Right after each verification, gpg replaces the caller's file by the forged one.
    wrap_gpg("case \"$*\" in *--verify*) " + kGpg + " \"$@\"; rc=$?; cp '" + fx_.host("/forged.asc") + "' '" +
             fx_.host(path) + "'; exit $rc;; esac");
    for (Verifier verify : {gpg_verify_cmd, gpg_verify_cmd_cached}) {
        EXPECT_EQ("0|hello\n|6", outcome(verify, path));
        // The cache holds the genuine bytes: the forged ones are verified anew, and fail.
        EXPECT_EQ(verify == gpg_verify_cmd ? "1|<null>|-" : "1|<null>|0", outcome(verify, path));
        fx_.write(path, data("hello-dev.asc"));
    }
}

TEST_F(SignedGnupg, AFifoADeviceOrAHugeFileIsRefusedWithoutWaitingOrFloodingMemory)
{
    fx_.mkdir("/tmp/home");
    for (auto [verify, refused] : {std::pair<Verifier, const char *>{gpg_verify_cmd, "1|<null>|-"},
                                   {gpg_verify_cmd_cached, "1|<null>|-"}, {gpg_verify, "49|<null>|-"}}) {
        tqtest::expect_hostile_files(
            fx_, "/data", refused, [&](const std::string &path) { return outcome(verify, path); }, refused,
            "1|<null>|-");
    }
    tqtest::expect_hostile_files(
        fx_, "/data", "run_verify",
        [](const std::string &p) { return std::to_string(run_verify("/tmp/home", p.c_str())); }, "0", "0");
    tqtest::expect_hostile_files(
        fx_, "/data", "get_custom_info",
        [](const std::string &p) { return tqtest::take(get_custom_info(p.c_str(), nullptr)); }, "<null>", "<null>");
    fs::remove(fx_.host("/tmp/home"));
}

TEST_F(SignedGnupg, WhenGpgCannotRunOrNoPrivateHomeCanBeMadeTheAnswerIs16AndNeverRemembered)
{
    const std::string ok = "0|hello\n|6", no_run = "16|<null>|-";
    const struct {
        const char *what;
        std::string gpg; // shell text before the real gpg runs; empty: no gpg at all
        std::string by_cmd, by_gpgme;
    } rows[] = {
        {"no gpg", "", no_run, no_run},
        {"the import fails", "case \"$*\" in *--import*) exit 2;; esac", no_run, "14|<null>|-"},
        {"gpg is killed", "case \"$*\" in *--verify*) kill -KILL $$;; esac", no_run, ok},
        {"gpg runs past the time limit", "case \"$*\" in *--verify*) sleep 2;; esac", no_run, ok},
        {"no /tmp", "mv", no_run, no_run},
    };
    tq::os::testing::set_helper_time_limit_ms(1000);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string path = put(std::to_string(&row - rows) + ".asc", data("hello-dev.asc"));
        if (row.gpg.empty())
            fs::remove(fx_.host(kGpg));
        else if (row.gpg == "mv")
            fs::rename(fx_.host("/tmp"), fx_.host("/tmp-away"));
        else
            wrap_gpg(row.gpg);
        EXPECT_EQ(row.by_cmd, outcome(gpg_verify_cmd, path));
        EXPECT_EQ("16|<null>|0", outcome(gpg_verify_cmd_cached, path));
        EXPECT_EQ(row.by_gpgme, outcome(gpg_verify, path));
        if (row.gpg == "mv")
            fs::rename(fx_.host("/tmp-away"), fx_.host("/tmp"));
        // Nothing of it was remembered, and the caller's home was never used.
        wrap_gpg();
        EXPECT_EQ(ok, outcome(gpg_verify_cmd_cached, path));
        EXPECT_FALSE(fs::exists(fx_.host("/home/gnupg/pubring.kbx")));
        EXPECT_EQ(fx_.host("/home/gnupg"), ::getenv("GNUPGHOME"));
    }
    tq::os::testing::set_helper_time_limit_ms(0);
}

TEST_F(SignedGnupg, CacheStartsGpgOnlyForANewOrChangedFileAndKeepsTheTenNewest)
{
    wrap_gpg();
    const std::string path = put("cached.asc", data("hello-dev.asc"));
    // Two verifications in a row; gpg starts twice (import and verify) for the first only.
    const auto twice = [&](const std::string &want, size_t starts) {
        EXPECT_EQ(want, outcome(gpg_verify_cmd_cached, path));
        EXPECT_EQ(want, outcome(gpg_verify_cmd_cached, path));
        EXPECT_EQ(starts, gpg_starts());
    };
    twice("0|hello\n|6", 2);
    EXPECT_TRUE(contains(fx_.trace_log(), "GPG cache hit, file path: /data/cached.asc"));
    // A new modification time misses.
    const auto later = fs::last_write_time(fx_.host(path)) + std::chrono::seconds(7);
    fs::last_write_time(fx_.host(path), later);
    twice("0|hello\n|6", 4);
    // So does one changed byte under the same modification time; the failure is remembered too.
    fx_.write(path, tampered_hello());
    fs::last_write_time(fx_.host(path), later);
    twice("1|<null>|0", 6);
    // Ten files are kept: the eleventh newer one evicts the oldest.
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, put("file" + std::to_string(i), "unsigned\n")));
    EXPECT_EQ(10u, tq::gpg_cache_count());
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, "/data/file9"));
    EXPECT_EQ(26u, gpg_starts());
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, path)); // evicted
    EXPECT_EQ(28u, gpg_starts());
}

TEST_F(Gnupg, NoCallChangesTheCallersEnvironmentOrLocaleAndPathDoesNotMatter)
{
    const std::string path = put("hello.asc", data("hello-dev.asc"));
    // Planted gpg and gpgconf programs that leave a mark when they run.
    const std::string planted = "#!/bin/sh\ntouch '" + fx_.host("/planted-ran") + "'\nexit 0\n";
    for (const char *name : {"/data/gpg", "/data/gpgconf", "/data/bin/gpg", "/data/bin/gpgconf", "/fake/gpg"})
        fx_.write(name, planted, 0755);
    const char *saved_path = ::getenv("PATH");
    const std::string normal = saved_path ? saved_path : "/usr/bin:/bin";
    // The process locale is "C" while the environment asks for another one.
    ::setenv("LC_ALL", "C.UTF-8", 1);
    const fs::path cwd = fs::current_path();
    fs::current_path(fx_.host("/data"));
    const std::string home = fx_.host("/home/gnupg");
    // The first row runs GPGME's own one-time set-up with an ordinary PATH,
    // and its answers are the ones every other row must give.
    std::vector<std::string> first;
    using Caller = std::pair<std::string, const char *>; // PATH, GNUPGHOME (null: unset)
    for (const auto &[search, gnupghome] : {Caller{normal, home.c_str()}, Caller{"", home.c_str()},
                                            Caller{"bin", nullptr}, Caller{fx_.host("/fake") + ":" + normal, nullptr}}) {
        SCOPED_TRACE("PATH=" + search);
        ::setenv("PATH", search.c_str(), 1);
        gnupghome ? ::setenv("GNUPGHOME", gnupghome, 1) : ::unsetenv("GNUPGHOME");
        const std::string locale = std::setlocale(LC_ALL, nullptr);
        char *armoured = nullptr;
        const int32_t encrypted = gpg_encrypt("text", &armoured, nullptr);
        const std::vector<std::string> answers = {outcome(gpg_verify_cmd, path), outcome(gpg_verify_cmd_cached, path),
                                                  outcome(gpg_verify, path), std::to_string(encrypted),
                                                  tqtest::take(armoured).substr(0, 27)};
        if (first.empty())
            first = answers;
        EXPECT_EQ(first, answers);
        EXPECT_EQ(locale, std::setlocale(LC_ALL, nullptr));
        const char *now = ::getenv("GNUPGHOME");
        EXPECT_EQ(std::string(gnupghome ? gnupghome : "<unset>"), now ? now : "<unset>");
    }
    fs::current_path(cwd);
    ::setenv("PATH", normal.c_str(), 1);
    ::unsetenv("LC_ALL");
    EXPECT_FALSE(fs::exists(fx_.host("/planted-ran")));
    const std::vector<std::string> good = {"0|hello\n|6", "0|hello\n|6", "0|hello\n|6", "0",
                                           "-----BEGIN PGP MESSAGE-----"};
    EXPECT_TRUE(!tq::generated::kTrustedKeyIsDevelopment || first == good);
}

TEST_F(Gnupg, EncryptionIsToTheBuiltInKeyAloneWhateverAGpgConfAround)
{
    // A second key and a gpg.conf that adds it as a hidden recipient (one
    // packet all the same where the build trusts that very key), in
    // the caller's home and in a folder named like the library's homes.
    for (const std::string home : {"/home/gnupg", "/tmp/gpgdir-planted"}) {
        fx_.mkdir(home);
        fs::permissions(fx_.host(home), fs::perms::owner_all);
        fx_.write(home + "/gpg.conf", "no-autostart\nhidden-encrypt-to 07B9F611D2C4E8E1\n");
        shell(kGpg + " --homedir '" + fx_.host(home) + "' --batch --import '" + kTestKeys + "other-secret.gpg' 2>/dev/null");
    }
    char *armoured = nullptr;
    ASSERT_EQ(0, gpg_encrypt("a secret\n", &armoured, nullptr));
    fx_.write("/message.asc", tqtest::take(armoured));
    fs::remove_all(fx_.host("/tmp/gpgdir-planted"));
    fx_.mkdir("/home/list");
    fs::permissions(fx_.host("/home/list"), fs::perms::owner_all);
    fx_.write("/home/list/gpg.conf", "no-autostart\n");
    const std::string packets = tqtest::run(kGpg + " --homedir '" + fx_.host("/home/list") + "' --batch --list-packets '" +
                                            fx_.host("/message.asc") + "' 2>/dev/null; true");
    const auto lines = tqtest::lines_of(packets);
    const auto recipient = [](const std::string &line) { return line.rfind(":pubkey enc packet:", 0) == 0; };
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), recipient)) << packets;
}

// A test-only key whose signing is done by a subkey.
const tq::TrustedKey kSubkeyKey = {nullptr, 0, "77217DC81CED619F7B74C8C1D23AFA2B2FCFB862", "D23AFA2B2FCFB862", 0};

TEST_F(Gnupg, ASignatureByASigningSubkeyOfTheTrustedKeyCounts)
{
    const std::string fpr = tq::trusted_key[0].fingerprint, key_id = tq::trusted_key[0].key_id, other(40, '0');
    std::string lower = fpr;
    std::transform(fpr.begin(), fpr.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    // By fingerprint or key ID, with the case as given; or a subkey whose primary key is the trusted one.
    const std::tuple<const char *, const char *, bool> rows[] = {
        {fpr.c_str(), nullptr, true},   {key_id.c_str(), nullptr, true}, {lower.c_str(), nullptr, false},
        {other.c_str(), nullptr, false}, {nullptr, nullptr, false},        {other.c_str(), fpr.c_str(), true},
        {other.c_str(), lower.c_str(), false}};
    for (const auto &[signing, primary, trusted] : rows)
        EXPECT_EQ(trusted, tq::trusted_signer(signing, primary)) << (signing ? signing : "null") << " "
                                                                  << (primary ? primary : "null");

    // A real subkey signature, as gpg and GPGME report it.
    fx_.mkdir("/home/sub");
    const std::string home = fx_.host("/home/sub"), signed_file = kSource + "/tests/integrity/data/gnupg/hello-subkey.asc";
    fs::permissions(home, fs::perms::owner_all);
    fx_.write("/home/sub/gpg.conf", "no-autostart\n");
    tqtest::run(kGpg + " --homedir '" + home + "' --batch --import '" + kTestKeys + "subkey-public.gpg' 2>/dev/null");
    const std::string status = tqtest::run(kGpg + " --homedir '" + home + "' --batch --status-fd 1 --verify '" +
                                           signed_file + "' 2>/dev/null");
    EXPECT_TRUE(tq::status_from_trusted_keys(status, {&kSubkeyKey, 1})) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys(status)) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys("", {&kSubkeyKey, 1}));

    gpgme_check_version(nullptr);
    gpgme_ctx_t ctx = nullptr;
    ASSERT_EQ(0u, gpgme_new(&ctx));
    EXPECT_EQ(53, tq::evaluate_verify_result(ctx)); // nothing verified: no signature
    ASSERT_EQ(0u, gpgme_ctx_set_engine_info(ctx, GPGME_PROTOCOL_OpenPGP, kGpg.c_str(), home.c_str()));
    gpgme_data_t in = nullptr, out = nullptr;
    ASSERT_EQ(0u, gpgme_data_new_from_file(&in, signed_file.c_str(), 1));
    ASSERT_EQ(0u, gpgme_data_new(&out));
    ASSERT_EQ(0u, gpgme_op_verify(ctx, in, nullptr, out));
    EXPECT_EQ(0, tq::evaluate_verify_result(ctx, {&kSubkeyKey, 1}));
    EXPECT_EQ(46, tq::evaluate_verify_result(ctx));
    gpgme_data_release(in);
    gpgme_data_release(out);
    gpgme_release(ctx);
}

TEST_F(SignedGnupg, EncryptedTextDecryptsWithTheDevelopmentSecretKey)
{
    const char *text = "a secret for the trusted key\n";
    char *armoured = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_encrypt(text, &armoured, &len));
    const std::string message = tqtest::take(armoured);
    EXPECT_EQ(message.size(), len);
    EXPECT_EQ(0u, message.rfind("-----BEGIN PGP MESSAGE-----", 0));
    EXPECT_EQ(0, gpg_encrypt("", nullptr, nullptr));
    EXPECT_EQ(44, gpg_encrypt(nullptr, &armoured, &len));

    fx_.mkdir("/home/decrypt");
    const std::string gpg = "gpg --batch --homedir '" + fx_.host("/home/decrypt") + "' ";
    fs::permissions(fx_.host("/home/decrypt"), fs::perms::owner_all);
    fx_.write("/message.asc", message);
    EXPECT_EQ(0, shell(gpg + "--import '" + kTestKeys + "dev-secret.gpg' 2>/dev/null && " + gpg + "-o '" +
                       fx_.host("/decrypted") + "' --decrypt '" + fx_.host("/message.asc") + "' 2>/dev/null"));
    shell("gpgconf --homedir '" + fx_.host("/home/decrypt") + "' --kill gpg-agent");
    EXPECT_EQ(text, fx_.read("/decrypted"));
}

TEST_F(Gnupg, EncryptionWithTheClockBeforeTheKeyGives15)
{
    if (::getenv("TQ_UNDER_FAKETIME")) {
        ASSERT_LT(std::time(nullptr), tq::trusted_key[0].created);
        char *armoured = nullptr;
        EXPECT_EQ(15, gpg_encrypt("text", &armoured, nullptr));
        EXPECT_EQ(nullptr, armoured);
        return;
    }
    // Run this same test again under faketime, so that gpg sees the clock too.
    const std::string self = fs::read_symlink("/proc/self/exe");
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const char *asan = ::getenv("ASAN_OPTIONS");
    const std::string log = fx_.host("/faketime.log");
    EXPECT_EQ(0, shell("TQ_UNDER_FAKETIME=1 ASAN_OPTIONS='" + std::string(asan ? asan : "") +
                       ":verify_asan_link_order=0' faketime -f '@2001-01-01 00:00:00' " + tqtest::built_program(self) +
                       " --gtest_filter=" + info->test_suite_name() + "." + info->name() + " > '" + log + "' 2>&1"))
        << tqtest::read_file(log);
    EXPECT_TRUE(contains(tqtest::read_file(log), "[  PASSED  ] 1 test")) << tqtest::read_file(log);
}

} // namespace
