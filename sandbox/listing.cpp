// Core's pages of rows for display: images, data selections, names.
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/core.h"
#include "sandbox/members.h"
#include "sandbox/store/characters.h"

namespace sandbox {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kRows = 100;

/// Collects a page. The stores offer one more row than a page has, which shows whether there is a
/// next page.
struct Page {
    OrderedJson rows = OrderedJson::array();
    OrderedJson next = nullptr;

    /// Takes a row; false if the page was full. With `cursor` the next page begins after this row.
    bool take(OrderedJson row, const std::string& cursor) {
        if (rows.size() == kRows) {
            next = last;
            return false;
        }
        rows.push_back(std::move(row));
        last = cursor;
        return true;
    }
    OrderedJson json() { return {{"rows", std::move(rows)}, {"next", std::move(next)}}; }

    std::string last;
};

constexpr char kSeparator = '\0';

/// The key of an image as a cursor, and back. It is in hexadecimal, since JSON would change a name
/// that is not UTF-8.
std::string cursorOf(const Image& image) {
    std::string cursor;
    for (const std::string& part :
         {std::to_string(image.dsid), image.client, image.policy, image.name}) {
        for (const char c : part + kSeparator)
            appendHex(cursor, static_cast<uint8_t>(c), kCapitalHex);
    }
    return cursor;
}

Image imageBehind(const std::string& cursor) {
    std::vector<std::string> parts(1);
    for (size_t at = 0; at + 1 < cursor.size(); at += 2) {
        const char c =
            static_cast<char>(capitalHexValue(cursor[at]) * 16 + capitalHexValue(cursor[at + 1]));
        if (c == kSeparator) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    if (cursor.empty()) return {};
    if (parts.size() != 5) throw std::runtime_error("'after' is not the 'next' of a page");
    Image image;
    image.dsid = static_cast<uint32_t>(strtoul(parts[0].c_str(), nullptr, 10));
    image.client = parts[1];
    image.policy = parts[2];
    image.name = parts[3];
    return image;
}

}  // namespace

OrderedJson Core::imagePage(const std::string& after) {
    Page page;
    images_.each(imageBehind(after), [&](const Image& image, std::string_view retention) {
        return page.take({{"dataselection", image.dsid},
                          {"client", image.client},
                          {"policy", image.policy},
                          {"name", image.name},
                          {"dofp", image.dofp},
                          {"parent", std::to_string(image.parent)},
                          {"datetime", std::to_string(static_cast<uint64_t>(image.datetime))},
                          {"dcid", std::to_string(static_cast<uint64_t>(image.dcid))},
                          {"flags", std::to_string(image.flags)},
                          {"retention", retention}},
                         cursorOf(image));
    });
    return page.json();
}

OrderedJson Core::selectionPage(const std::string& after) {
    Page page;
    bool any = after.empty();
    selections_.each(
        static_cast<uint32_t>(strtoul(after.c_str(), nullptr, 10)),
        [&](uint32_t number, std::string_view tag) {
            any = false;
            return page.take({{"number", number}, {"tag", tag}}, std::to_string(number));
        });
    OrderedJson json = page.json();
    json["any"] = any;
    return json;
}

OrderedJson Core::namePage(const std::string& path, const std::string& after) {
    Page page;
    names_.each(path, after, [&](char kind, int64_t size, int64_t mtime, std::string_view name) {
        return page.take({{"type", std::string(1, kind)},
                          {"size", std::to_string(size)},
                          {"mtime", std::to_string(mtime)},
                          {"name", name}},
                         std::string(name));
    });
    return page.json();
}

}  // namespace sandbox
