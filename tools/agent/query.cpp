#include "tools/agent/query.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>

#include "common/owned.h"
#include "platform/events.h"
#include "platform/status.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kHeadLines = 3;  ///< of an answer: names, types, count

/// A pattern for the server, which compares fields of POs. Some characters are stored there as a
/// code of three, which `?` would not match. `*` finds too much; isMatch() drops the excess.
std::string widened(std::string pattern) {
    std::replace(pattern.begin(), pattern.end(), '?', '*');
    return fieldText(pattern);
}

bool isLike(const std::string& text, const std::string& pattern) {
    std::string plain;  // fnmatch() would take brackets for a set of characters
    for (const char c : pattern)
        plain += c == '[' ? std::string("[[]") : std::string(1, c);
    return fnmatch(plain.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

bool isMatch(const Criteria& criteria, const std::string& path) {
    if ((criteria.folder + criteria.file).find('?') == std::string::npos) return true;
    const PlaceOfPath place = placeOf(path);
    return isLike(place.folder, criteria.folder) && isLike(place.name, criteria.file);
}

/// A filter and the texts that it points to.
struct Filter {
    MBPOFilter criteria{};
    std::string client, policy, image, folder, file;

    explicit Filter(const Criteria& c)
        : client(fieldText(c.name.client)),
          policy(fieldText(c.name.policy)),
          image(c.name.image.empty() ? "*" : fieldText(c.name.image)),
          folder(widened(c.folder)),
          file(widened(c.file)) {
        criteria.size = sizeof criteria;
        MBPOFilterInit(&criteria);
        criteria.criterion6 = client.c_str();
        criteria.criterion7 = policy.c_str();
        criteria.criterion8 = image.c_str();
        criteria.criterion9 = folder.c_str();
        criteria.criterion10 = file.c_str();
        criteria.criterion12 = static_cast<signed char>(c.type);
    }
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;
};

/// Takes a line without its LF from the text. The end of the text also ends a line.
std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

/// The number of lines before the end or an empty line, which is not a PO.
uint64_t linesOf(std::string_view text) {
    uint64_t count = 0;
    for (; !text.empty() && text.front() != '\n'; ++count)
        takeLine(text);
    return count;
}

template <typename Number>
Number numberOf(const std::string& text) {
    Number number{};
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

ImageRecord readImage(std::string_view line, uint32_t dataselection) {
    std::vector<std::string> fields = tool::fieldsOf(line);
    fields.resize(std::max<size_t>(fields.size(), 8));
    return {.name = {.dataselection = dataselection,
                     .client = fields[1],
                     .policy = fields[2],
                     .image = fields[4]},
            .time = numberOf<int64_t>(fields[0]),
            .parent = numberOf<int32_t>(fields[3]),
            .dofp = fields[5],
            .dcid = numberOf<int64_t>(fields[6]),
            .flags = numberOf<int32_t>(fields[7])};
}

std::string subjectOf(const ImageName& name) {
    return "image " + tool::printable(name.image);
}

}  // namespace

uint64_t findPOs(tool::Session& session, const Criteria& criteria, const POVisitor& visit) {
    const Filter filter(criteria);
    kspool::OwnedText answer;
    uint32_t announced = 0;
    MBSetRetryCount(0);
    session.attemptQuery(criteria.name.dataselection, [&](MBSession* s) {
        char* text = nullptr;
        const uint32_t status =
            MBPOFind(s, criteria.name.dataselection, &filter.criteria, &text, nullptr, &announced);
        answer.reset(text);
        return status;
    });
    if (answer == nullptr) return 0;
    std::string_view rest = answer.get();
    for (size_t i = 0; i < kHeadLines; ++i)
        takeLine(rest);
    if (linesOf(rest) < announced) {
        throw tool::Failure("query: the server sent fewer POs than it announced");
    }
    uint64_t matches = 0;
    for (uint32_t i = 0; i < announced; ++i) {
        const std::string_view line = takeLine(rest);
        FoundPO found = readPO(line);
        if (!isMatch(criteria, found.record.path)) continue;
        ++matches;
        visit(std::move(found), line);
    }
    return matches;
}

uint64_t findImage(tool::Session& session, const ImageName& name, const POVisitor& visit) {
    uint64_t count = 0;
    findPOs(session, {.name = name}, [&](FoundPO&& found, std::string_view line) {
        if (!isSame(found.name, name)) return;
        ++count;
        visit(std::move(found), line);
    });
    return count;
}

char typeOf(const Record& record) {
    const FileStatus& s = record.status;
    return s.isFile() ? 'f' : s.isFolder() ? 'd' : s.isLink() ? 'l' : '?';
}

uint64_t countFiles(const ImageName& name, tool::Session& session) {
    return findImage(session, name, [](FoundPO&&, std::string_view) {});
}

std::vector<ImageRecord> listImages(tool::Session& session, uint32_t dataselection,
                                    const std::string& client, const std::string& policy) {
    kspool::OwnedText answer;
    session.attemptEvent("images", [&](MBSession* s) {
        char* text = nullptr;
        const uint32_t status =
            MBGetLastImages(s, dataselection, client.c_str(), policy.c_str(), -1, 0, &text);
        answer.reset(text);
        // This status means an empty answer. A refusal would be an event, which has another number.
        return status == CR_STATUS_REMOTE_ERROR ? uint32_t{CR_STATUS_OK} : status;
    });
    std::vector<ImageRecord> images;
    std::string_view rest = answer != nullptr ? answer.get() : "";
    while (!rest.empty())
        images.push_back(readImage(takeLine(rest), dataselection));
    return images;
}

std::optional<Retention> retentionOf(tool::Session& session, const ImageName& name) {
    const auto info = std::make_unique<MBImageRetentionInfo>();
    bool known = true;
    session.attemptEvent(subjectOf(name), [&](MBSession* s) {
        const uint32_t event =
            MBGetImageRetention(s, name.dataselection, name.client.c_str(), name.policy.c_str(),
                                name.image.c_str(), info.get());
        // CR_STATUS_REMOTE_ERROR means an empty answer.
        known = event != CR_STATUS_REMOTE_ERROR && event != POOL_EVENT_NO_IMAGE;
        return known ? event : uint32_t{CR_STATUS_OK};
    });
    if (!known) return {};
    return Retention{info->retentionValue1, info->retentionValue2, info->retentionValue4};
}

void setImage(tool::Session& session, const ImageName& name, int64_t time) {
    session.attemptEvent(subjectOf(name), [&](MBSession* s) {
        return MBSetLastImageV2(s, name.dataselection, name.client.c_str(), name.policy.c_str(), 0,
                                static_cast<uint64_t>(time), name.image.c_str(), 0);
    });
}

bool deleteImage(tool::Session& session, const ImageName& name) {
    bool known = true;
    session.attemptEvent(subjectOf(name), [&](MBSession* s) {
        const uint32_t event = MBDeleteImage(s, name.dataselection, name.client.c_str(),
                                             name.policy.c_str(), name.image.c_str(), 0);
        known = event != POOL_EVENT_NO_IMAGE;
        return known ? event : uint32_t{CR_STATUS_OK};
    });
    return known;
}

void expirePOs(tool::Session& session, uint32_t dataselection, std::string_view lines) {
    while (!lines.empty()) {
        size_t size = lines.size();
        if (size > kLongestList) {
            const size_t before = lines.rfind('\n', kLongestList - 1);
            const size_t end = before != std::string_view::npos ? before : lines.find('\n');
            size = std::min(end, size - 1) + 1;
        }
        const std::string list(lines.substr(0, size));
        session.attempt("expire",
                        [&](MBSession* s) { return MBPOExpire(s, dataselection, list.c_str()); });
        lines.remove_prefix(size);
    }
}

}  // namespace agent
