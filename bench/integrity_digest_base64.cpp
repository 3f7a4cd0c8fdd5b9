// SPDX-License-Identifier: LGPL-2.1-or-later
// Digest checks on a large file (page cache warm after the first pass) and
// Base64 both ways. With the environment variable TQ_DIGEST_FILE and the
// argument --digest-once, it instead runs file_check_sha256 once on that file
// and prints the seconds taken (used by digest_ratio.sh).
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tavro-quenda.h"

namespace {

constexpr size_t kFileSize = 256u << 20;

struct BigFile {
    std::string path;
    BigFile()
    {
        char tmpl[] = "/tmp/tq-bench-digest-XXXXXX";
        int fd = ::mkstemp(tmpl);
        if (fd < 0)
            return;
        path = tmpl;
        std::vector<char> block(1 << 20);
        std::mt19937 gen(7);
        for (char &c : block)
            c = static_cast<char>(gen());
        for (size_t done = 0; done < kFileSize; done += block.size())
            if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
                break;
        ::close(fd);
    }
    ~BigFile()
    {
        if (!path.empty())
            ::unlink(path.c_str());
    }
};

BigFile &big_file()
{
    static BigFile f;
    return f;
}

template <int (*Check)(const char *, const char *)>
void BM_FileCheck(benchmark::State &state)
{
    const std::string &path = big_file().path;
    // A wrong expectation still hashes the whole file.
    const char *expected = "0000000000000000000000000000000000000000000000000000000000000000";
    for (auto _ : state)
        benchmark::DoNotOptimize(Check(path.c_str(), expected));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFileSize));
}
BENCHMARK(BM_FileCheck<file_check_sha256>)->Name("file_check_sha256/256MiB")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileCheck<file_check_sha1>)->Name("file_check_sha1/256MiB")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileCheck<file_check_md5>)->Name("file_check_md5/256MiB")->Unit(benchmark::kMillisecond);

void BM_Base64Encode(benchmark::State &state)
{
    std::vector<unsigned char> in(static_cast<size_t>(state.range(0)), 0x5a);
    std::vector<char> out(4 * (in.size() + 2) / 3 + 4);
    uint32_t len = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(base64_encode(in.data(), static_cast<uint32_t>(in.size()), out.data(), &len));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Base64Encode)->Arg(48)->Arg(4096)->Arg(1 << 20);

void BM_Base64Decode(benchmark::State &state)
{
    std::vector<unsigned char> raw(static_cast<size_t>(state.range(0)), 0xa5);
    std::string text(4 * (raw.size() + 2) / 3 + 4, '\0');
    uint32_t len = 0;
    base64_encode(raw.data(), static_cast<uint32_t>(raw.size()), text.data(), &len);
    text.resize(len);
    std::vector<unsigned char> out(text.size());
    uint32_t out_len = 0;
    for (auto _ : state) {
        if (base64_decode(text.c_str(), len, out.data(), &out_len) != 0 || out_len != raw.size())
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Base64Decode)->Arg(48)->Arg(4096)->Arg(1 << 20);

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--digest-once") == 0) {
        const char *path = std::getenv("TQ_DIGEST_FILE");
        if (!path)
            return 2;
        auto start = std::chrono::steady_clock::now();
        int r = file_check_sha256(path, "x");
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        std::printf("%.6f\n", took.count());
        return r == 0 ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
