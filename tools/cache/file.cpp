#include "tools/cache/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/status.h"
#include "tools/shared/descriptor.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

constexpr uint32_t kCacheFileType = 64;
constexpr size_t kTypeOffset = 32;
constexpr size_t kBlockSize = 16384 * kRecordSize;
constexpr uint64_t kNamedTypes = 10;  ///< so many records of unknown types are named one by one

std::string hex(uint64_t number) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "0x%08llx", static_cast<unsigned long long>(number));
    return text.data();
}

/// Notes a damage for which the library refuses a file.
void refuse(FileReport& report, const char* kind, std::string text) {
    report.damage.push_back({kind, 0, std::move(text)});
    report.refused = true;
}

/// The header, from the position to which it leaves the file. False when records need not be looked
/// for: what follows another header is nothing that can be judged.
bool readHeader(int fd, FileReport& report) {
    char probe = 0;
    struct stat status {};
    // Asked first, because a failed qlxMagicRead() does not tell an error from a wrong header. A
    // pipe fails here as well, and so does a folder.
    if (pread(fd, &probe, 1, 0) < 0 || fstat(fd, &status) != 0) {
        report.trouble = strerror(errno);
        return false;
    }
    report.size = static_cast<uint64_t>(status.st_size);
    const uint32_t type = qlxMagicRead(fd, &report.header);
    if (type == 0) {
        refuse(report, "header", "no whole magic header: it is no cache file");
        return false;
    }
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position < 0) {
        report.trouble = strerror(errno);
        return false;
    }
    report.headerSize = static_cast<uint64_t>(position);
    if (type == kCacheFileType) return true;
    refuse(report, "header",
           "header of type " + std::to_string(type) + ", where cache files have " +
               std::to_string(kCacheFileType));
    return false;
}

/// Counts whole records by their types, and says which types are unknown.
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

/// Counts and checksums all that follows the header; false when it cannot be read.
bool readRecords(int fd, FileReport& report) {
    std::vector<uint8_t> block(kBlockSize);
    RecordCounter counter(report);
    uLong checksum = adler32(0, nullptr, 0);
    size_t kept = 0;  // the beginning of a record that the last read cut
    for (;;) {
        const ssize_t got = read(fd, block.data() + kept, block.size() - kept);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            report.trouble = strerror(errno);
            return false;
        }
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
    return true;
}

/// A sum cannot say where a file is damaged.
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
    // Not to wait for whoever may write into a pipe.
    const tool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) {
        report.trouble = strerror(errno);
    } else if (readHeader(file.get(), report) && readRecords(file.get(), report)) {
        compareChecksums(report);
    }
    return report;
}

FileReport inspectAloud(const std::string& path) {
    FileReport report = inspect(path);
    for (const Damage& damage : report.damage)
        tool::complain(kProgram, report.name + ": " + damage.text);
    if (!report.trouble.empty()) tool::complain(kProgram, report.name + ": " + report.trouble);
    return report;
}

int loadability(const FileReport& file) {
    if (!file.trouble.empty()) return tool::kExitTrouble;
    return file.refused ? tool::kExitNo : tool::kExitOk;
}

nlohmann::ordered_json damageJson(const FileReport& file) {
    auto list = nlohmann::ordered_json::array();
    for (const Damage& damage : file.damage)
        list.push_back({{"kind", damage.kind}, {"offset", damage.offset}, {"text", damage.text}});
    return list;
}

}  // namespace cache
