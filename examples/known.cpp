// Which contents on the server are new since the last run? Asks for the POs whose name matches a
// pattern; a cache file knows the digests of former runs.
//
//     c++ -std=c++20 known.cpp $(pkg-config --cflags --libs kspool) -o known
//     KSPOOL_PASSWORD=... ./known http://127.0.0.1:9080 agent 1 "*.h" known.cache
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "kspool.hpp"

namespace {

using Digest = std::array<uint8_t, 32>;

/// A digest of its hexadecimal digits, if they are one.
std::optional<Digest> digestOf(std::string_view digits) {
    Digest digest{};
    if (digits.size() != 2 * digest.size()) return std::nullopt;
    for (size_t i = 0; i < digest.size(); ++i) {
        const char* at = digits.data() + 2 * i;
        if (std::from_chars(at, at + 2, digest[i], 16).ptr != at + 2) return std::nullopt;
    }
    return digest;
}

int failed(const char* what, kspool::Status status) {
    std::fprintf(stderr, "known: %s: %s\n", what, status.text());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    const char* file = argv[5];
    kspool::Cache cache(1'000'000);
    if (!cache) return failed("no cache", kspool::Status::slot());
    const auto loaded = cache.ask<uint64_t>(KSCacheLoad, file);
    const bool isFirstRun = loaded.status() == CR_STATUS_SYSTEM_BASE + ENOENT;
    if (!loaded && !isFirstRun) return failed(file, loaded.status());

    kspool::Session session(MBInit(argv[1], 0, argv[2], std::getenv("KSPOOL_PASSWORD")));
    if (!session) return failed("no session", kspool::Status::slot());
    kspool::Filter filter;
    filter.criterion10 = argv[4];
    auto records =
        session.findRecords(static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)), filter);
    unsigned added = 0;
    unsigned known = 0;
    for (const kspool::Po& po : records) {
        const auto digest = digestOf(po.field(10));
        if (!digest) continue;  // a folder
        const kspool::Status status = cache.add(kspool::keyOf(*digest), 0);
        if (!status && status != CR_STATUS_EXISTS) return failed("add", status);
        const std::string_view name = po.field(9);
        std::printf("%s %.*s\n", status ? "new  " : "known", static_cast<int>(name.size()),
                    name.data());
        ++(status ? added : known);
    }
    // A loop also ends at a failure.
    if (!records.status()) return failed("query", records.status());
    const auto saved = cache.ask<uint64_t>(KSCacheReplaceFile, file, nullptr);
    if (!saved) return failed(file, saved.status());
    std::printf("%u new, %u known\n", added, known);
    return 0;
}
