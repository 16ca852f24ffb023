#include "tools/agent/facts.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/shared/durable.h"
#include "tools/shared/failure.h"

namespace agent {
namespace {

using nlohmann::ordered_json;

constexpr int kFormat = 1;

/// JSON holds UTF-8 only; names may be any bytes.
std::string asciiText(const std::string& text) {
    std::string out;
    for (const char c : fieldText(text)) {
        const auto byte = static_cast<unsigned char>(c);
        char code[4];
        snprintf(code, sizeof code, "%%%02X", byte);
        out += byte < 0x80 ? std::string(1, c) : code;
    }
    return out;
}

std::string textAt(const ordered_json& object, const char* key) {
    return plainText(object.at(key).get<std::string>());
}

ordered_json jsonOf(const ImageFact& image) {
    return {{"number", image.number},
            {"client", asciiText(image.name.client)},
            {"policy", asciiText(image.name.policy)},
            {"image", asciiText(image.name.image)},
            {"run", image.run},
            {"pos", image.sum.pos},
            {"sum", image.sum.sum}};
}

ImageFact imageOf(const ordered_json& json, uint32_t dataselection) {
    return {.number = json.at("number"),
            .name = {.dataselection = dataselection,
                     .client = textAt(json, "client"),
                     .policy = textAt(json, "policy"),
                     .image = textAt(json, "image")},
            .run = json.at("run"),
            .sum = {.pos = json.at("pos"), .sum = json.at("sum")}};
}

Facts factsOf(const ordered_json& json) {
    Facts facts;
    if (json.at("format") != kFormat) throw tool::Failure("of another format");
    const ordered_json& binding = json.at("binding");
    facts.binding = {.server = textAt(binding, "server"),
                     .pool = binding.at("pool"),
                     .dataselection = binding.at("dataselection"),
                     .cut = {.digest = binding.at("digest"), .segmentSize = binding.at("segment")}};
    facts.next = json.at("next");
    facts.caches = json.at("caches");
    for (const ordered_json& image : json.at("images"))
        facts.images.push_back(imageOf(image, facts.binding.dataselection));
    return facts;
}

bool sameImage(const ImageName& a, const ImageName& b) {
    return a.client == b.client && a.policy == b.policy && a.image == b.image;
}

template <typename Test>
const ImageFact* lastOf(const std::vector<ImageFact>& images, Test test) {
    const auto found = std::find_if(images.rbegin(), images.rend(), test);
    return found != images.rend() ? &*found : nullptr;
}

}  // namespace

void ImageSum::add(const Record& r) {
    std::string text;
    for (const std::string& part :
         {r.path, r.digest, std::to_string(r.status.isFile() ? r.status.size : 0), r.readRun}) {
        text += part;
        text += '\0';
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
    return std::erase_if(images, [&](const ImageFact& i) { return sameImage(i.name, name); }) > 0;
}

std::string factsPath(const std::string& cache) {
    std::error_code failure;
    const std::string resolved = std::filesystem::weakly_canonical(cache, failure);
    return (failure ? cache : resolved) + ".facts";
}

std::optional<Facts> loadFacts(const std::string& path) {
    const std::optional<std::string> text = tool::readWhole(path);
    if (!text) return {};
    try {
        return factsOf(ordered_json::parse(*text));
    } catch (const ordered_json::exception&) {
        throw tool::Failure(path + ": not a file of facts");
    }
}

void saveFacts(const std::string& path, const Facts& facts) {
    const Binding& b = facts.binding;
    ordered_json json = {{"format", kFormat},
                         {"binding",
                          {{"server", asciiText(b.server)},
                           {"pool", b.pool},
                           {"dataselection", b.dataselection},
                           {"digest", b.cut.digest},
                           {"segment", b.cut.segmentSize}}},
                         {"next", facts.next},
                         {"caches", facts.caches},
                         {"images", ordered_json::array()}};
    for (const ImageFact& image : facts.images)
        json["images"].push_back(jsonOf(image));
    tool::replaceWhole(path, json.dump(1) + "\n");
}

}  // namespace agent
