#include "tools/agent/facts.h"

#include <openssl/sha.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "tools/shared/durable.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// The file has lines of fields, like POs; the first field is the kind of line. The next number
/// comes before the sums of caches: a file truncated before it matches no cache, so that no number
/// is used again.
constexpr char kProgram[] = "kspool-agent facts ";
constexpr char kTitle[] = "kspool-agent facts 1";
constexpr char kBinding[] = "binding", kNext[] = "next", kCache[] = "cache", kImage[] = "image";
constexpr int kMostLinks = 40;  ///< as many as the system follows

template <typename... Values>
std::string lineOf(const char* about, const Values&... values) {
    std::string line = about;
    const auto add = [&](const auto& value) {
        if constexpr (std::is_integral_v<std::decay_t<decltype(value)>>) {
            line += "|" + std::to_string(value);
        } else {
            line += "|" + fieldText(value);
        }
    };
    (add(values), ...);
    return line + "\n";
}

/// Reads the fields of a line in order. Throws Failure if one is missing or not a number.
class Fields {
  public:
    explicit Fields(std::string_view line) : fields_(tool::fieldsOf(line)) {}

    std::string text() {
        if (at_ == fields_.size()) throw tool::Failure("not a file of facts");
        return plainText(fields_[at_++]);
    }

    template <typename Number>
    Number number() {
        const std::string digits = text();
        Number value{};
        const char* end = digits.data() + digits.size();
        const auto [rest, error] = std::from_chars(digits.data(), end, value);
        if (error != std::errc() || rest != end) throw tool::Failure("not a file of facts");
        return value;
    }

  private:
    std::vector<std::string> fields_;
    size_t at_ = 0;
};

/// Braced lists are evaluated from left to right, so the fields are read in the order of the line.
void readLine(std::string_view line, Facts& facts) {
    Fields f(line);
    const std::string about = f.text();
    if (about == kBinding) {
        facts.binding = {f.text(), f.number<uint32_t>(), f.number<uint32_t>(),
                         Cut{f.text(), f.number<uint64_t>()}};
    } else if (about == kNext) {
        facts.next = f.number<uint64_t>();
    } else if (about == kCache) {
        facts.caches.push_back(f.text());
    } else if (about == kImage) {
        facts.images.push_back(
            {f.number<uint64_t>(),
             ImageName{facts.binding.dataselection, f.text(), f.text(), f.text()}, f.text(),
             ImageSum{f.number<uint64_t>(), f.number<uint64_t>()}});
    }
}

template <typename Test>
const ImageFact* lastOf(const std::vector<ImageFact>& images, Test test) {
    const auto found = std::find_if(images.rbegin(), images.rend(), test);
    return found != images.rend() ? &*found : nullptr;
}

}  // namespace

void ImageSum::add(const Record& r) {
    std::string text;
    for (const std::string& part : {r.path, r.digest, r.readRun}) {
        text += part;
        text += '\0';
    }
    if (const FileStatus& s = r.status; s.isFile()) {  // by which it counts as unchanged
        for (const uint64_t number :
             {s.size, s.inode, static_cast<uint64_t>(s.modified.tv_sec),
              static_cast<uint64_t>(s.modified.tv_nsec), static_cast<uint64_t>(s.changed.tv_sec),
              static_cast<uint64_t>(s.changed.tv_nsec), static_cast<uint64_t>(r.readAt)})
            text += std::to_string(number) + '\0';
    }
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    uint64_t word = 0;
    memcpy(&word, digest, sizeof word);
    sum += word;
    ++pos;
}

const ImageFact* Facts::byRun(const std::string& run) const {
    return lastOf(images, [&](const ImageFact& i) { return i.run == run; });
}

const ImageFact* Facts::byNumber(uint64_t number) const {
    return lastOf(images, [&](const ImageFact& i) { return i.number == number; });
}

bool Facts::untie(const ImageName& name) {
    return std::erase_if(images, [&](const ImageFact& i) { return isSame(i.name, name); }) > 0;
}

std::string factsPath(const std::string& cache) {
    std::error_code failure;
    std::filesystem::path path = cache;
    // weakly_canonical() would leave a link that leads to nothing, which the cache's file follows.
    for (int links = 0; links < kMostLinks && std::filesystem::is_symlink(path, failure); ++links)
        path = path.parent_path() / std::filesystem::read_symlink(path, failure);
    const std::string resolved = std::filesystem::weakly_canonical(path, failure);
    return (failure ? cache : resolved) + ".facts";
}

std::optional<Facts> loadFacts(const std::string& path) {
    const std::optional<std::string> text = tool::readWhole(path);
    if (!text) return {};
    std::string_view rest = *text;
    const auto takeLine = [&] {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        return line;
    };
    const std::string_view title = takeLine();
    if (title != kTitle) {
        if (title.substr(0, strlen(kProgram)) == kProgram || text->empty()) return Facts{};
        throw tool::Failure(path + ": there is a file that is not a file of facts");
    }
    Facts facts;
    try {
        while (!rest.empty())
            readLine(takeLine(), facts);
    } catch (const tool::Failure&) {
        return Facts{};
    }
    return facts;
}

void saveFacts(const std::string& path, const Facts& facts) {
    const Binding& b = facts.binding;
    std::string text = std::string(kTitle) + "\n";
    text += lineOf(kBinding, b.server, b.pool, b.dataselection, b.cut.digest, b.cut.segmentSize);
    text += lineOf(kNext, facts.next);
    for (const std::string& cache : facts.caches)
        text += lineOf(kCache, cache);
    for (const ImageFact& i : facts.images) {
        text += lineOf(kImage, i.number, i.name.client, i.name.policy, i.name.image, i.run,
                       i.sum.pos, i.sum.sum);
    }
    tool::replaceWhole(path, text);
}

}  // namespace agent
