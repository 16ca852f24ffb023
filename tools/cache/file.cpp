#include "tools/cache/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/owned.h"
#include "platform/status.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

constexpr uint32_t kCacheFileType = 64;
constexpr size_t kTypeOffset = 32;
constexpr size_t kBlockSize = 16384 * kRecordSize;
constexpr uint64_t kNamedTypes = 10;  ///< records of unknown types that are named one by one

std::string hex(uint64_t number) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "0x%08llx", static_cast<unsigned long long>(number));
    return text.data();
}

/// Notes damage for which the library refuses the file.
void refuse(FileReport& report, const char* kind, std::string text) {
    report.damage.push_back({kind, 0, std::move(text)});
    report.refused = true;
}

[[noreturn]] void failToRead() {
    throw tool::Failure(strerror(errno));
}

/// Reads the header and leaves the position after it. Refuses a file that is not a cache file,
/// whose records would make no sense. Throws Failure if the file cannot be read.
void readHeader(int fd, FileReport& report) {
    char probe = 0;
    struct stat status {};
    // Probed first, because qlxMagicRead() does not tell a read error from a wrong header. The
    // probe fails for a pipe and a folder as well.
    if (pread(fd, &probe, 1, 0) < 0 || fstat(fd, &status) != 0) failToRead();
    report.size = static_cast<uint64_t>(status.st_size);
    const uint32_t type = qlxMagicRead(fd, &report.header);
    if (type == 0) return refuse(report, "header", "no whole magic header: it is no cache file");
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position < 0) failToRead();
    report.headerSize = static_cast<uint64_t>(position);
    if (type == kCacheFileType) return;
    refuse(report, "header",
           "header of type " + std::to_string(type) + ", where cache files have " +
               std::to_string(kCacheFileType));
}

/// Counts whole records by their types, and notes records of unknown types as damage.
class RecordCounter {
  public:
    explicit RecordCounter(FileReport& report) : report_(report) {}

    void count(const uint8_t* records, size_t number) {
        for (size_t i = 0; i < number; ++i, records += kRecordSize) {
            const uint8_t type = records[kTypeOffset];
            if (CRFPTypeIsValid(type) == 0) noteUnknown(type);
            ++report_.recordsOfType[type];
            ++report_.records;
        }
    }
    void finish(size_t rest) {
        if (unknown_ > kNamedTypes) {
            report_.damage.push_back({"types", firstUnnamed_,
                                      std::to_string(unknown_ - kNamedTypes) +
                                          " more of unknown types, from offset " +
                                          std::to_string(firstUnnamed_) + " on"});
        }
        if (rest > 0) {
            report_.damage.push_back({"partial", offset(),
                                      "partial record at the end: offset " +
                                          std::to_string(offset()) + ", " + std::to_string(rest) +
                                          " of " + std::to_string(kRecordSize) + " bytes"});
        }
    }

  private:
    uint64_t offset() const { return report_.headerSize + report_.records * kRecordSize; }

    void noteUnknown(uint8_t type) {
        if (++unknown_ == kNamedTypes + 1) firstUnnamed_ = offset();
        if (unknown_ > kNamedTypes) return;
        report_.damage.push_back({"type", offset(),
                                  "record at offset " + std::to_string(offset()) +
                                      " has unknown type " + std::to_string(type)});
    }

    FileReport& report_;
    uint64_t unknown_ = 0;
    uint64_t firstUnnamed_ = 0;
};

/// Counts the records after the header, and computes their checksum. Throws Failure if they cannot
/// be read.
void readRecords(int fd, FileReport& report) {
    std::vector<uint8_t> block(kBlockSize);
    RecordCounter counter(report);
    uLong checksum = adler32(0, nullptr, 0);
    size_t kept = 0;  // bytes at the front of the buffer: the beginning of an incomplete record
    for (;;) {
        const ssize_t got = read(fd, block.data() + kept, block.size() - kept);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failToRead();
        if (got == 0) break;
        checksum = adler32(checksum, block.data() + kept, static_cast<uInt>(got));
        const size_t filled = kept + static_cast<size_t>(got);
        const size_t whole = filled / kRecordSize;
        counter.count(block.data(), whole);
        kept = filled - whole * kRecordSize;
        memmove(block.data(), block.data() + whole * kRecordSize, kept);
    }
    counter.finish(kept);
    report.checksum = static_cast<uint32_t>(checksum);
}

/// The checksum covers all of the contents, so it cannot locate the damage.
void compareChecksums(FileReport& report) {
    if (report.header.value > UINT32_MAX) {
        refuse(report, "header", "checksum of more than 32 bits: " + hex(report.header.value));
    } else if (report.header.value != report.checksum) {
        refuse(report, "checksum",
               "checksum differs: the header says " + hex(report.header.value) +
                   ", the contents have " + hex(report.checksum));
    }
}

}  // namespace

FileReport inspect(const std::string& path) {
    FileReport report;
    report.path = path;
    report.name = tool::printable(path);
    try {
        // O_NONBLOCK: opening a pipe would wait for a writer.
        const kspool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (file.get() < 0) failToRead();
        readHeader(file.get(), report);
        if (report.refused) return report;
        readRecords(file.get(), report);
        compareChecksums(report);
    } catch (const tool::Failure& failure) {
        report.trouble = failure.what();
    }
    return report;
}

FileReport inspectAndReport(const std::string& path) {
    FileReport report = inspect(path);
    for (const Damage& damage : report.damage)
        tool::complain(report.name + ": " + damage.text);
    if (report.trouble) tool::complain(report.name + ": " + *report.trouble);
    return report;
}

tool::ExitCode loadingCode(const FileReport& file) {
    if (file.trouble) return tool::ExitCode::kTrouble;
    return file.refused ? tool::ExitCode::kNo : tool::ExitCode::kOk;
}

nlohmann::ordered_json damageJson(const FileReport& file) {
    auto list = nlohmann::ordered_json::array();
    for (const Damage& damage : file.damage)
        list.push_back({{"kind", damage.kind}, {"offset", damage.offset}, {"text", damage.text}});
    return list;
}

}  // namespace cache
