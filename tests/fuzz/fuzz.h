// What the fuzz targets share: an input that is taken apart piece by piece, and a file for it.
#ifndef TESTS_FUZZ_H
#define TESTS_FUZZ_H

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/support.h"
#include "tests/support/must.h"

namespace fuzz {

/// Bytes that say what to do. Past their end all is 0 or empty.
class Input {
  public:
    Input(const uint8_t* bytes, size_t size) : rest_(reinterpret_cast<const char*>(bytes), size) {}

    bool isEmpty() const { return rest_.empty(); }
    uint8_t byte() { return static_cast<uint8_t>(bytes(1).c_str()[0]); }
    uint32_t below(uint32_t limit) { return byte() % limit; }
    /// A text of up to 255 characters, which may have a NUL in it.
    std::string text() { return bytes(byte()); }
    std::string bytes(size_t count) {
        const std::string taken(rest_.substr(0, count));
        rest_.remove_prefix(taken.size());
        return taken;
    }
    std::string all() { return bytes(rest_.size()); }
    /// The bytes before a mark, which is dropped, or else all.
    std::string until(char mark) {
        std::string taken = bytes(std::min(rest_.find(mark), rest_.size()));
        bytes(1);
        return taken;
    }

  private:
    std::string_view rest_;
};

/// A file of this process, in memory where the system has such a place.
class ScratchFile {
  public:
    explicit ScratchFile(const char* name)
        : path_((access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/") + std::string(name) + "-" +
                std::to_string(getpid())) {}
    ~ScratchFile() { unlink(path_.c_str()); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const char* path() const { return path_.c_str(); }
    std::string content() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void hold(const std::string& bytes) const {
        std::ofstream file(path_, std::ios::binary | std::ios::trunc);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

  private:
    std::string path_;
};

/// Messages are made, traces included, and thrown away.
inline void discardMessages() {
    qlxSetSink([](uint32_t, uint32_t, const char*, void*) {}, nullptr);
    *__qlxlog_trace_location() = 1;
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

#endif
