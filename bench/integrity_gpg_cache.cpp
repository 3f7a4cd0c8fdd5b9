// SPDX-License-Identifier: LGPL-2.1-or-later
// What the cache of gpg_verify_cmd_cached saves: a hit against a miss for a
// small signed file, and one gpg_verify_cmd against one plain "gpg --verify".
// Temporary homes, files and the trace log live in a private tree, and GnuPG
// runs in a private home, never the user's own.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "foundation/os.h"
#include "tavro-quenda.h"

namespace {

namespace fs = std::filesystem;

// A small file signed by the development key the default build embeds.
const std::string kSignedFile = std::string(TQ_SOURCE_DIR) + "/tests/integrity/data/gnupg/hello-dev.asc";
const std::string kPublicKey = std::string(TQ_SOURCE_DIR) + "/tests/keys/test-only/dev-public.gpg";

struct Setup {
    std::string root;
    std::string path = "/data/hello.asc"; // as the library sees it
    std::string host_path;
    std::string plain_home; // a home with the key imported, for plain gpg

    Setup()
    {
        char tmpl[] = "/tmp/tq-bench-gnupg-XXXXXX";
        root = ::mkdtemp(tmpl) ? tmpl : "";
        for (const char *dir : {"/tmp", "/var/log", "/data", "/home", "/usr/bin"})
            fs::create_directories(root + dir);
        // The library runs gpg by its absolute path, which lies under the root too.
        fs::create_symlink("/usr/bin/gpg", root + "/usr/bin/gpg");
        host_path = root + path;
        fs::copy_file(kSignedFile, host_path, fs::copy_options::overwrite_existing);
        plain_home = root + "/home/gnupg";
        fs::create_directories(plain_home);
        fs::permissions(plain_home, fs::perms::owner_all);
        std::ofstream(plain_home + "/gpg.conf") << "no-autostart\n";
        ::setenv("GNUPGHOME", plain_home.c_str(), 1);
        if (std::system(("gpg --homedir '" + plain_home + "' --batch --import '" + kPublicKey + "' > /dev/null 2>&1").c_str()) != 0)
            std::fputs("bench_gpg_cache: gpg --import of the public key failed\n", stderr);
        tq::os::testing::set_root(root);
    }
    ~Setup()
    {
        tq::os::testing::reset();
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
};

Setup &setup()
{
    static Setup s;
    return s;
}

void verify_once(int32_t (*verifier)(const char *, char **, size_t *), benchmark::State &state)
{
    char *content = nullptr;
    size_t len = 0;
    if (verifier(setup().path.c_str(), &content, &len) != 0)
        state.SkipWithError("the signed file did not verify (is the development key embedded?)");
    std::free(content);
}

void BM_cache_hit(benchmark::State &state)
{
    verify_once(gpg_verify_cmd_cached, state); // fills the cache
    for (auto _ : state)
        verify_once(gpg_verify_cmd_cached, state);
}
BENCHMARK(BM_cache_hit)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_cache_miss(benchmark::State &state)
{
    time_t mtime = 1000000000;
    for (auto _ : state) {
        state.PauseTiming();
        // A new modification time: the file is verified afresh.
        struct timespec times[2] = {{++mtime, 0}, {mtime, 0}};
        ::utimensat(AT_FDCWD, setup().host_path.c_str(), times, 0);
        state.ResumeTiming();
        verify_once(gpg_verify_cmd_cached, state);
    }
}
BENCHMARK(BM_cache_miss)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(30);

void BM_gpg_verify_cmd(benchmark::State &state)
{
    for (auto _ : state)
        verify_once(gpg_verify_cmd, state);
}
BENCHMARK(BM_gpg_verify_cmd)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(30);

// The same check as one gpg command in a home that already holds the key.
void BM_plain_gpg_verify(benchmark::State &state)
{
    const std::string command = "gpg --homedir '" + setup().plain_home + "' --no-tty --batch --verify '" +
                                setup().host_path + "' > /dev/null 2>&1";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0)
            state.SkipWithError("plain gpg --verify failed");
    }
}
BENCHMARK(BM_plain_gpg_verify)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(30);

void BM_gpg_verify_gpgme(benchmark::State &state)
{
    for (auto _ : state)
        verify_once(gpg_verify, state);
}
BENCHMARK(BM_gpg_verify_gpgme)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(30);

} // namespace

BENCHMARK_MAIN();
