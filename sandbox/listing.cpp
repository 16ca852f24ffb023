// The pages of rows that Core tells people: images, data selections, names.
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "sandbox/core.h"
#include "sandbox/members.h"

namespace sandbox {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kRows = 100;

/// Gathers a page: the stores offer one row more than it takes, which tells whether there is a
/// next.
struct Page {
    OrderedJson rows = OrderedJson::array();
    OrderedJson next = nullptr;

    /// Takes a row; false when the page was full. `cursor` makes the next page begin behind the
    /// row.
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

/// The key of an image as a cursor, and back. The names cannot hold the separator.
std::string cursorOf(const Image& image) {
    return std::to_string(image.dsid) + "|" + image.client + "|" + image.policy + "|" + image.name;
}

Image imageBehind(const std::string& cursor) {
    Image image;
    if (cursor.empty()) return image;
    const size_t client = cursor.find('|'), policy = cursor.find('|', client + 1),
                 name = cursor.find('|', policy + 1);
    if (client == std::string::npos || policy == std::string::npos || name == std::string::npos)
        throw std::runtime_error("'after' is not the 'next' of a page");
    image.dsid = static_cast<uint32_t>(strtoul(cursor.c_str(), nullptr, 10));
    image.client = cursor.substr(client + 1, policy - client - 1);
    image.policy = cursor.substr(policy + 1, name - policy - 1);
    image.name = cursor.substr(name + 1);
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
