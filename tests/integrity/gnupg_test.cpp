// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification and encryption against the real gpg, with the
// development key the default build embeds.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "built_program.h"
#include "fixture.h"
#include "integrity/gnupg.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"
#include "tavro_quenda_trusted_key.h"

namespace fs = std::filesystem;
using tqtest::contains;

namespace {

const std::string kSource = TQ_SOURCE_DIR;
const std::string kTestKeys = kSource + "/tests/keys/test-only/";
// The gpg the library runs, by this absolute path whatever PATH holds. The
// test's own gpg runs use it too: PATH holds decoys.
const std::string kGpg = "/usr/bin/gpg";

std::string data(const std::string &name) { return tqtest::read_file(kSource + "/tests/integrity/data/gnupg/" + name); }

// Live gpg-agent processes whose command line mentions needle (a zombie's is empty).
int agents_mentioning(const std::string &needle)
{
    int found = 0;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string cmdline = tqtest::read_file(entry.path() / "cmdline");
        found += contains(cmdline, "gpg-agent") && contains(cmdline, needle);
    }
    return found;
}

// A shell command line's wait status: 0 when it ran and exited with 0.
int shell(const std::string &command) { return std::system(command.c_str()); }

// What a verifier hands back, as "code|content|length": "<null>" for no
// content, "-" for a length it left alone.
std::string outcome(int32_t (*verify)(const char *, char **, size_t *), const std::string &path)
{
    char *content = nullptr;
    size_t len = 4242;
    const int32_t code = verify(path.c_str(), &content, &len);
    return std::to_string(code) + "|" + tqtest::take(content) + "|" + (len == 4242 ? "-" : std::to_string(len));
}

class Gnupg : public ::testing::Test {
protected:
    void SetUp() override
    {
        fx_.mkdir("/tmp");
        wrap_gpg();
        // GPGME looks for its own helpers through PATH once, when its first
        // context is made: here, before the decoys are planted. (No text to
        // encrypt is 44, for every test.)
        EXPECT_EQ(44, gpg_encrypt(nullptr, nullptr, nullptr));
        // The caller's GnuPG home, locale (not the one the environment names)
        // and PATH (decoy gpg and gpgconf first) may be neither used nor changed.
        ::setenv("GNUPGHOME", fx_.host("/home/gnupg").c_str(), 1);
        std::setlocale(LC_CTYPE, "C.UTF-8");
        locale_ = std::setlocale(LC_ALL, nullptr);
        path_ = ::getenv("PATH") ? ::getenv("PATH") : "/usr/bin:/bin";
        fx_.path_script("gpg", "exit 0");
        fx_.path_script("gpgconf", "exit 0");
    }

    void TearDown() override
    {
        EXPECT_TRUE(leaks_.clean());
        EXPECT_TRUE(fs::is_empty(fx_.host("/tmp"))) << "something was left in the fixture's /tmp";
        // Nothing may have started a key agent that outlives the test; one
        // asked to stop takes a moment to go.
        for (int i = 0; i < 50 && agents_mentioning(fx_.root()) > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(0, agents_mentioning(fx_.root())) << "a key agent outlived the test";
        EXPECT_STREQ(fx_.host("/home/gnupg").c_str(), ::getenv("GNUPGHOME"));
        EXPECT_EQ(locale_, std::setlocale(LC_ALL, nullptr));
        EXPECT_EQ(0u, fx_.calls("gpg").size() + fx_.calls("gpgconf").size()) << "a decoy on PATH ran";
    }

    // The library's gpg under the fixture's root: the real one, each start
    // counted (fx_.calls(kGpg)); the shell text first runs before it.
    void wrap_gpg(std::string first = "") { fx_.script(kGpg, first + "\nexec " + kGpg + " \"$@\""); }

    // A GnuPG home of the test's own, and the start of a gpg command line using it.
    std::string own_gpg(const std::string &home, const std::string &conf = "no-autostart\n")
    {
        fx_.write(home + "/gpg.conf", conf);
        return kGpg + " --homedir '" + fx_.host(home) + "' --batch ";
    }
    // Standard output of a shell command, whatever its exit status.
    std::string output_of(const std::string &command)
    {
        shell(command + " > '" + fx_.host("/output") + "' 2>/dev/null");
        return fx_.read("/output");
    }

    tqtest::Fixture fx_;
    tqtest::LeakCheck leaks_{tqtest::gnupg_temp_prefixes()};
    std::string locale_, path_;
};

// The signed fixtures are signed by the development key.
const char kNoDevelopmentKey[] = "the signed fixtures need the development key, which this build does not trust";

TEST_F(Gnupg, TheSignedBodyIsCutOutOfTheTextAndOnlyTheFirst4095BytesAreRead)
{
    const std::string head = "-----BEGIN PGP SIGNED MESSAGE-----\n", top = head + "Hash: SHA1\n\n";
    const std::string marker = "-----BEGIN PGP SIGNATURE-----\n";
    const std::pair<std::string, std::string> cases[] = {
        {data("hello-dev.asc"), "0|hello\n|6"}, {"", "-1||77"}, {"hello\n", "-1||77"},
        // Exactly one header line is assumed: a second one loses its first character.
        {head + "Hash: SHA256\nComment: x\n\nbody\n" + marker, "0|omment: x\n\nbody\n|16"},
        // Text before the marker is skipped; dash-escaped lines stay as they are.
        {"junk\n" + top + "- -dash\n-----BEGIN PGP SIGNATURE-----", "0|- -dash\n|8"},
        {"-----BEGIN PGP SIGNED MESSAGE-----", "-1||77"}, {top + "no signature\n", "-1||77"},
        // Texts that end right after the header line.
        {head + "Hash: SHA1\n", "-1||77"}, {head + "\n\n", "-1||77"},
    };
    for (const auto &[text, want] : cases) {
        // Exactly sized heap buffers, so that the sanitizer sees any over-read.
        std::vector<char> in(text.c_str(), text.c_str() + text.size() + 1), body(text.size() + 1);
        size_t len = 77;
        const int32_t rc = extract_signed_message(in.data(), body.data(), &len);
        EXPECT_EQ(want, std::to_string(rc) + "|" + (rc == 0 ? body.data() : "") + "|" + std::to_string(len)) << text;
    }
    EXPECT_EQ(-1, extract_signed_message(nullptr, nullptr, nullptr));

    // The marker's last character is the 4095th byte of the file, then the 4096th.
    const size_t fits = 4095 - top.size() - marker.size() + 1;
    for (size_t n : {fits, fits + 1}) {
        size_t len = 5;
        fx_.write("/data/a", top + std::string(n, 'a') + marker);
        const std::string got = tqtest::take(get_custom_info("/data/a", &len));
        EXPECT_EQ(n == fits ? std::string(n, 'a') + "|" + std::to_string(n) : "<null>|5",
                  got + "|" + std::to_string(len));
    }
    EXPECT_EQ(nullptr, get_custom_info(nullptr, nullptr));
}

TEST_F(Gnupg, EachVerifierHandsBackOnlyTheTextGpgVerifiedWithTheTrustedKey)
{
    if (!tq::generated::kTrustedKeyIsDevelopment)
        GTEST_SKIP() << kNoDevelopmentKey;
    const std::string hello = data("hello-dev.asc"), ok = "0|hello\n|6", no = "1|<null>|-", cr = "0|hello\r\n|7";
    const std::string crlf = std::regex_replace(hello, std::regex("\n"), "\r\n"), no_run = "16|<null>|-";
    const std::string longest = "0|" + std::string(4094, 'a') + "\n|4095";
    // Name, content (none: no such file), answers of gpg_verify_cmd and
    // gpg_verify, and shell text that runs before the real gpg.
    using Row = std::tuple<std::string, std::optional<std::string>, std::string, std::string, std::string>;
    const Row rows[] = {
        // Blanks and shell syntax in a path are just characters.
        {"it's a $(touch pwned) `touch pwned2`; file.asc", hello, ok, ok, ""},
        // A good signature over the longest text handed back, and over one too long.
        {"edge.asc", data("edge-dev.asc"), longest, longest, ""},
        {"big.asc", data("big-dev.asc"), "0|<null>|-", "0|<null>|-", ""},
        // Signed, but not clear-signed: only GPGME hands the text back.
        {"hello.gpg", data("hello-dev.gpg"), "0|<null>|-", ok, ""},
        // A detached signature over empty data, alone: it vouches for no text.
        {"empty.asc", data("empty-dev.asc"), no, no, ""},
        {"other.asc", data("hello-other.asc"), no, "14|<null>|-", ""},
        // gpg marks a bad signature red, and red is asked before the status code.
        {"tampered.asc", std::regex_replace(hello, std::regex("hello\n"), "hellO\n"), no, "50|<null>|-", ""},
        // gpg finds no OpenPGP data at all here, and the verify operation fails.
        {"plain.txt", "just text\n", no, no, ""},
        {"missing.asc", std::nullopt, no, "49|<null>|-", ""},
        // The command-line route takes one clear-signed message and nothing else.
        // gpg skips text around the block it verifies; a forged block whose
        // markers carry a prefix was once cut out as the body.
        {"forged.asc", "x-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA512\n\nforged\n"
                       "x-----BEGIN PGP SIGNATURE-----\n\n" + hello, no, ok, ""},
        {"after.asc", hello + "text\n", no, ok, ""},
        // Blank lines around the one message are fine, and so are CR LF line ends.
        {"blank.asc", "\n \n" + hello + "\n\t\n", ok, ok, ""},
        {"crlf.asc", crlf, cr, cr, ""},
        // Edits the signature does not see: the text is gpg's, never the edited one.
        {"dash.asc", std::regex_replace(hello, std::regex("hello\n"), "- hello\n"), ok, ok, ""},
        // When gpg cannot run or no private home can be made, the answer is 16.
        {"nogpg.asc", hello, no_run, no_run, ""},
        {"notmp.asc", hello, no_run, no_run, ""},
        {"import.asc", hello, no_run, "14|<null>|-", "case \"$*\" in *--import*) exit 2;; esac"},
        {"slow.asc", hello, no_run, ok, "case \"$*\" in *--verify*) sleep 2;; esac"},
        {"killed.asc", hello, no_run, ok, "case \"$*\" in *--verify*) kill -KILL $$;; esac"},
    };
    for (const auto &[name, text, by_cmd, by_gpgme, gpg] : rows) {
        const std::string path = "/data/" + name;
        if (text)
            fx_.write(path, *text);
        wrap_gpg(gpg);
        if (name == "nogpg.asc")
            fs::remove(fx_.host(kGpg));
        if (name == "notmp.asc")
            fs::rename(fx_.host("/tmp"), fx_.host("/tmp-away"));
        tq::os::testing::set_helper_time_limit_ms(name == "slow.asc" ? 1000 : 0);
        EXPECT_EQ(by_cmd, outcome(gpg_verify_cmd, path)) << name;
        // The cached route hands back a zero length where the other leaves it
        // alone; an unreadable file bypasses the cache.
        const std::string cached = text ? std::regex_replace(by_cmd, std::regex("-$"), "0") : by_cmd;
        EXPECT_EQ(cached, outcome(gpg_verify_cmd_cached, path)) << name;
        EXPECT_EQ(by_gpgme, outcome(gpg_verify, path)) << name;
        if (name == "notmp.asc")
            fs::rename(fx_.host("/tmp-away"), fx_.host("/tmp"));
        // The same again from the cache, which starts no gpg; a run that could
        // not happen was not remembered.
        wrap_gpg();
        const size_t starts = fx_.calls(kGpg).size();
        EXPECT_EQ(by_cmd == no_run ? ok : cached, outcome(gpg_verify_cmd_cached, path)) << name;
        EXPECT_EQ(by_cmd == no_run, fx_.calls(kGpg).size() > starts) << name;
    }
    EXPECT_FALSE(fs::exists(fx_.host("/home/gnupg/pubring.kbx"))) << "the caller's GnuPG home was used";
    const std::string good = "/data/" + std::get<0>(rows[0]);
    for (auto verify : {gpg_verify_cmd, gpg_verify_cmd_cached, gpg_verify})
        EXPECT_EQ(0, verify(good.c_str(), nullptr, nullptr));
    // The private homes' removal is seen only in the trace.
    for (const char *trace : {"run_verify verify return success", "remove_directory: /tmp/gpgdir-",
                              "gpg_verify_cmd, cannot run /usr/bin/gpg", "gpg_verify, cannot run /usr/bin/gpg"})
        EXPECT_TRUE(contains(fx_.trace_log(), trace)) << trace;

    // run_verify, in a home of the caller's that holds the trusted key. A
    // relative name that looks like an option is still a file name.
    shell(own_gpg("/home/verify") + "--import " + kTestKeys + "dev-public.gpg 2>/dev/null");
    EXPECT_EQ(1, run_verify("/home/verify", good.c_str()));
    EXPECT_EQ(0, run_verify("/home/verify", "/data/other.asc"));
    EXPECT_EQ(0, run_verify(nullptr, good.c_str()));
    const fs::path cwd = fs::current_path();
    fs::current_path(fx_.host("/data"));
    fx_.write("/data/--output=pwned3", hello);
    const int relative = run_verify("/home/verify", "--output=pwned3");
    fs::current_path(cwd);
    EXPECT_EQ(1, relative);
}

TEST_F(Gnupg, CacheStartsGpgOnlyForANewOrChangedFileAndKeepsTheTenNewest)
{
    if (!tq::generated::kTrustedKeyIsDevelopment)
        GTEST_SKIP() << kNoDevelopmentKey;
    const std::string hello = data("hello-dev.asc"), path = "/data/cached.asc";
    const size_t set_up = fx_.calls(kGpg).size();
    fx_.write(path, hello);
    EXPECT_EQ("0|hello\n|6", outcome(gpg_verify_cmd_cached, path));
    EXPECT_EQ("0|hello\n|6", outcome(gpg_verify_cmd_cached, path));
    EXPECT_TRUE(contains(fx_.trace_log(), "GPG cache hit, file path: /data/cached.asc"));
    // A new modification time misses, and so does one changed byte under the
    // same modification time: gpg starts twice (import and verify) for each miss.
    const auto later = fs::last_write_time(fx_.host(path)) + std::chrono::seconds(7);
    fs::last_write_time(fx_.host(path), later);
    EXPECT_EQ("0|hello\n|6", outcome(gpg_verify_cmd_cached, path));
    fx_.write(path, std::regex_replace(hello, std::regex("hello\n"), "hellO\n"));
    fs::last_write_time(fx_.host(path), later);
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, path));
    EXPECT_EQ(set_up + 6, fx_.calls(kGpg).size());
    // Ten files are kept: the eleventh newer one evicts the oldest.
    for (int i = 0; i < 10; ++i) {
        fx_.write("/data/file" + std::to_string(i), "unsigned\n");
        EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, "/data/file" + std::to_string(i)));
    }
    EXPECT_EQ(10u, tq::gpg_cache_count());
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, path)); // evicted
    EXPECT_EQ(set_up + 28, fx_.calls(kGpg).size());

    // gpg replaces the file by a forged one right after it read it: gpg
    // verified a private copy, whose text is handed back and whose bytes the
    // cache holds, so the forged ones are verified anew, and fail.
    fx_.write(path, hello);
    fx_.write("/forged.asc", std::regex_replace(hello, std::regex("hello\n"), "forged\n"));
    wrap_gpg("case \"$*\" in *--verify*) " + kGpg + " \"$@\"; rc=$?; cp '" + fx_.host("/forged.asc") + "' '" +
             fx_.host(path) + "'; exit $rc;; esac");
    EXPECT_EQ("0|hello\n|6", outcome(gpg_verify_cmd_cached, path));
    EXPECT_EQ("1|<null>|0", outcome(gpg_verify_cmd_cached, path));
}

TEST_F(Gnupg, EncryptionIsToTheBuiltInKeyAloneWhateverAGpgConfAround)
{
    const tq::TrustedKey &key = tq::trusted_key[0];
    if (::getenv("TQ_UNDER_FAKETIME")) {
        // The clock is set before the key's creation, for gpg too.
        ASSERT_LT(std::time(nullptr), key.created);
        EXPECT_EQ(15, gpg_encrypt("text", nullptr, nullptr));
        return;
    }
    // The embedded key record agrees with what gpg says of its bytes, and
    // write_temp_pubkey writes those bytes to a private file.
    const std::string bytes(reinterpret_cast<const char *>(key.data), key.length);
    fx_.write("/key.gpg", bytes);
    const std::string colons = output_of(own_gpg("/home/list") + "--with-colons --show-keys " + fx_.host("/key.gpg"));
    EXPECT_TRUE(contains(colons, "\nfpr:::::::::" + std::string(key.fingerprint) + ":")) << colons;
    EXPECT_TRUE(contains(colons, ":" + std::string(key.key_id) + ":" + std::to_string(key.created) + ":")) << colons;
    const std::string path = tqtest::take(write_temp_pubkey());
    EXPECT_EQ(bytes, path.rfind("/tmp/pubkey_", 0) == 0 ? fx_.read(path) : "") << path;
    fs::remove(fx_.host(path));

    // A second key and a gpg.conf that adds it as a hidden recipient (one
    // packet all the same where the build trusts that very key), in
    // the caller's home and in a folder named like the library's homes.
    for (const std::string home : {"/home/gnupg", "/tmp/gpgdir-planted"})
        shell(own_gpg(home, "no-autostart\nhidden-encrypt-to 07B9F611D2C4E8E1\n") + "--import " + kTestKeys +
              "other-secret.gpg 2>/dev/null");
    const char *text = "a secret for the trusted key\n";
    char *armoured = nullptr;
    size_t len = 0;
    ASSERT_EQ(0, gpg_encrypt(text, &armoured, &len));
    const std::string message = tqtest::take(armoured);
    fs::remove_all(fx_.host("/tmp/gpgdir-planted"));
    EXPECT_EQ(message.size(), len);
    EXPECT_EQ(0, gpg_encrypt("", nullptr, nullptr));
    fx_.write("/msg.asc", message);
    const auto packets = tqtest::lines_of(output_of(own_gpg("/home/list") + "--list-packets " + fx_.host("/msg.asc")));
    const auto recipient = [](const std::string &line) { return line.rfind(":pubkey enc packet:", 0) == 0; };
    EXPECT_EQ(1, std::count_if(packets.begin(), packets.end(), recipient)) << message;

    // Run this same test again under faketime, so that gpg sees the clock too.
    const std::string self = fs::read_symlink("/proc/self/exe"), log = fx_.host("/faketime.log");
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const char *asan = ::getenv("ASAN_OPTIONS");
    shell("PATH='" + path_ + "' TQ_UNDER_FAKETIME=1 ASAN_OPTIONS='" + std::string(asan ? asan : "") +
          ":verify_asan_link_order=0' faketime -f '@2001-01-01 00:00:00' " + tqtest::built_program(self) +
          " --gtest_filter=" + info->test_suite_name() + "." + info->name() + " > '" + log + "' 2>&1");
    EXPECT_TRUE(contains(tqtest::read_file(log), "[  PASSED  ] 1 test")) << tqtest::read_file(log);

    if (!tq::generated::kTrustedKeyIsDevelopment)
        GTEST_SKIP() << "decrypting needs the development key's secret half, and this build trusts another key";
    const std::string gpg = own_gpg("/home/decrypt", "");
    EXPECT_EQ(text, output_of(gpg + "--import " + kTestKeys + "dev-secret.gpg 2>/dev/null && " + gpg + "--decrypt " +
                              fx_.host("/msg.asc")));
    EXPECT_EQ(0, shell("/usr/bin/gpgconf --homedir '" + fx_.host("/home/decrypt") + "' --kill gpg-agent"));
}

// A test-only key whose signing is done by a subkey.
const tq::TrustedKey kSubkeyKey = {nullptr, 0, "77217DC81CED619F7B74C8C1D23AFA2B2FCFB862", "D23AFA2B2FCFB862", 0};

TEST_F(Gnupg, ASignatureByASigningSubkeyOfTheTrustedKeyCounts)
{
    const std::string fpr = tq::trusted_key[0].fingerprint, key_id = tq::trusted_key[0].key_id, other(40, '0');
    std::string lower = fpr;
    std::transform(fpr.begin(), fpr.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    // By fingerprint (below) or key ID, with the case as given; or a subkey
    // whose primary key is the trusted one (below).
    const std::tuple<const char *, const char *, bool> rows[] = {
        {key_id.c_str(), nullptr, true}, {lower.c_str(), nullptr, false}, {nullptr, nullptr, false},
        {other.c_str(), lower.c_str(), false}};
    for (const auto &[signing, primary, trusted] : rows)
        EXPECT_EQ(trusted, tq::trusted_signer(signing, primary)) << (signing ? signing : "-");

    // A real subkey signature, as gpg and GPGME report it.
    const std::string gpg = own_gpg("/home/sub"), home = fx_.host("/home/sub");
    const std::string signed_file = kSource + "/tests/integrity/data/gnupg/hello-subkey.asc";
    shell(gpg + "--import " + kTestKeys + "subkey-public.gpg 2>/dev/null");
    const std::string status = output_of(gpg + "--status-fd 1 --verify " + signed_file);
    EXPECT_TRUE(tq::status_from_trusted_keys(status, {&kSubkeyKey, 1})) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys(status)) << status;
    EXPECT_FALSE(tq::status_from_trusted_keys("", {&kSubkeyKey, 1}));

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

} // namespace
