#include "tools/agent/po.h"

#include <charconv>
#include <cstdio>
#include <iterator>
#include <vector>

#include "platform/net.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// Fields of a PO, which count from 1.
enum class Field : size_t {
    kOwner = 4,
    kGroup = 5,
    kClient = 6,
    kPolicy = 7,
    kImage = 8,
    kFolder = 9,
    kName = 10,
    kDigest = 11,
    kType = 12,
    kFormat = 13,
    kSize = 16,
    kMtime = 17,
    kCtime = 18,
    kBackupTime = 19,
    kSegments = 21,
    kNewSegments = 22,
    kMode = 24,
    kComment = 26,
};

constexpr char kApplication[] = "kspool-agent";
constexpr char kFormat[] = "segments:";  ///< followed by DIGEST:SIZE

/// The comment is words KEY=NUMBER and, at its end, one KEY=TEXT that may hold spaces.
constexpr char kInode[] = "inode=", kMtimeNs[] = " mtimens=", kCtimeNs[] = " ctimens=";
constexpr char kReadAt[] = " read=", kRun[] = " run=", kReadImage[] = " image=";
constexpr char kTarget[] = " target=";

struct Kind {
    char type;
    mode_t mode;
};
constexpr Kind kKinds[] = {{'f', S_IFREG}, {'d', S_IFDIR}, {'l', S_IFLNK}};

char typeOf(const FileStatus& status) {
    for (const Kind& kind : kKinds) {
        if ((status.mode & S_IFMT) == kind.mode) return kind.type;
    }
    return '?';
}

std::string commentOf(const Record& r) {
    const FileStatus& s = r.status;
    std::string comment = kInode + std::to_string(s.inode) + kMtimeNs +
                          std::to_string(s.modified.tv_nsec) + kCtimeNs +
                          std::to_string(s.changed.tv_nsec);
    if (s.isLink()) return comment + kTarget + r.target;
    if (!s.isFile()) return comment;
    return comment + kReadAt + std::to_string(r.readAt) + kRun + r.readRun + kReadImage +
           r.readImage;
}

template <typename Number>
Number numberOf(std::string_view text) {
    Number number{};
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// The text after a key of the comment up to the next space.
std::string_view wordAfter(std::string_view comment, std::string_view key) {
    const size_t at = comment.find(key);
    if (at == std::string_view::npos) return {};
    const std::string_view rest = comment.substr(at + key.size());
    return rest.substr(0, rest.find(' '));
}

/// The text of the last key may look like other keys, so those are searched only before it.
void readComment(std::string_view comment, Record& r) {
    const std::string_view lastKey = r.status.isLink() ? kTarget : kReadImage;
    const std::string_view words = comment.substr(0, comment.find(lastKey));
    r.status.inode = numberOf<uint64_t>(wordAfter(words, kInode));
    r.status.modified.tv_nsec = numberOf<int32_t>(wordAfter(words, kMtimeNs));
    r.status.changed.tv_nsec = numberOf<int32_t>(wordAfter(words, kCtimeNs));
    r.readAt = numberOf<int64_t>(wordAfter(words, kReadAt));
    r.readRun = wordAfter(words, kRun);
    if (words.size() == comment.size()) return;
    (r.status.isLink() ? r.target : r.readImage) = comment.substr(words.size() + lastKey.size());
}

std::optional<Cut> cutOf(std::string_view format) {
    const std::string_view start = kFormat;
    if (format.substr(0, start.size()) != start) return {};
    format.remove_prefix(start.size());
    const size_t colon = format.find(':');
    if (colon == std::string_view::npos) return {};
    return Cut{std::string(format.substr(0, colon)), numberOf<uint64_t>(format.substr(colon + 1))};
}

uint32_t modeOf(std::string_view type, uint32_t mode) {
    if ((mode & S_IFMT) != 0 || type.empty()) return mode;
    for (const Kind& kind : kKinds) {
        if (type[0] == kind.type) return mode | kind.mode;
    }
    return mode;
}

}  // namespace

std::string fieldText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '|' || c == '%' || byte < 0x20 || byte == 0x7f) {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", byte);
            out += code;
        } else {
            out += c;
        }
    }
    return out;
}

std::string plainText(std::string field) {
    URLDecode(field.data());
    field.resize(field.find('\0') != std::string::npos ? field.find('\0') : field.size());
    return field;
}

PlaceOfPath placeOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

std::string poLine(const ImageName& name, const Record& r) {
    const PlaceOfPath place = placeOf(r.path);
    const FileStatus& s = r.status;
    std::string line;
    const auto text = [&](const std::string& value) { line += fieldText(value) + "|"; };
    const auto number = [&](auto value) { line += std::to_string(value) + "|"; };
    number(static_cast<int32_t>(name.dataselection));
    number(1);  // kind: the agent's
    text("");   // origin
    number(static_cast<int32_t>(s.owner));
    number(static_cast<int32_t>(s.group));
    text(name.client);
    text(name.policy);
    text(name.image);
    text(place.folder);
    text(place.name);
    text(r.digest);
    text(std::string(1, typeOf(s)));
    text(r.cut ? kFormat + r.cut->digest + ":" + std::to_string(r.cut->segmentSize) : "");
    text("");
    text(kApplication);
    number(static_cast<int64_t>(s.isFile() ? s.size : 0));
    number(s.modified.tv_sec);
    number(s.changed.tv_sec);
    number(r.recordedAt);
    number(0);  // expires
    number(r.segments);
    number(r.newSegments);
    number(0);  // dcid
    number(static_cast<int32_t>(s.mode));
    number(0);  // flags
    return line + fieldText(commentOf(r)) + "\n";
}

FoundPO readPO(std::string_view line) {
    const std::vector<std::string> fields = tool::fieldsOf(line);
    const auto raw = [&](Field which) {
        const auto at = static_cast<size_t>(which);
        return at <= fields.size() ? fields[at - 1] : std::string();
    };
    const auto text = [&](Field which) { return plainText(raw(which)); };
    const auto number = [&](Field which) { return numberOf<int64_t>(raw(which)); };
    FoundPO found;
    found.name = {.dataselection = static_cast<uint32_t>(numberOf<int64_t>(fields.front())),
                  .client = text(Field::kClient),
                  .policy = text(Field::kPolicy),
                  .image = text(Field::kImage)};
    Record& r = found.record;
    const std::string folder = text(Field::kFolder);
    r.path = (folder == "/" ? "" : folder) + "/" + text(Field::kName);
    r.status.mode = modeOf(raw(Field::kType), static_cast<uint32_t>(number(Field::kMode)));
    r.status.owner = static_cast<uint32_t>(number(Field::kOwner));
    r.status.group = static_cast<uint32_t>(number(Field::kGroup));
    r.status.size = static_cast<uint64_t>(number(Field::kSize));
    r.status.modified.tv_sec = number(Field::kMtime);
    r.status.changed.tv_sec = number(Field::kCtime);
    r.digest = text(Field::kDigest);
    r.cut = cutOf(text(Field::kFormat));
    r.segments = static_cast<uint64_t>(number(Field::kSegments));
    r.newSegments = static_cast<uint64_t>(number(Field::kNewSegments));
    r.recordedAt = number(Field::kBackupTime);
    readComment(text(Field::kComment), r);
    return found;
}

}  // namespace agent
