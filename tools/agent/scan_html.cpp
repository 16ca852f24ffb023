#include "tools/agent/scan_html.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <vector>

#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kMostRows = 12;

/// Escapes a text for HTML: names of files may contain any character.
std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : tool::printable(text)) {
        switch (c) {
            case '&':
                safe += "&amp;";
                break;
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '"':
                safe += "&quot;";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

std::string number(const char* format, double value) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), format, value);
    return text.data();
}

std::string ratioText(const SizeResult& size) {
    const bool known = size.all().bytes > 0 && size.all().bytes == size.repeated().bytes;
    return known ? "all known" : number("%.2f : 1", size.dedupRatio());
}

/// A part of a bar; the class of the page's style gives its colour.
struct Part {
    const char* style;
    double share;  ///< of the longest bar
};

struct Row {
    std::string name;
    std::vector<Part> parts;
    std::vector<std::string> figures;
};

struct Section {
    std::string title;
    std::string text;                ///< HTML
    std::vector<std::string> heads;  ///< of the name and the figures
    std::vector<Row> rows;
    bool wide = false;
};

std::string bar(const std::vector<Part>& parts) {
    std::string svg = R"(<svg viewBox="0 0 100 1" preserveAspectRatio="none" aria-hidden="true">)";
    double at = 0;
    for (const Part& part : parts) {
        svg += std::string("<rect class=\"") + part.style + "\" x=\"" + number("%.3f", at) +
               "\" width=\"" + number("%.3f", 100 * part.share) + "\" height=\"1\"/>";
        at += 100 * part.share;
    }
    return svg + "</svg>";
}

std::string html(const Section& section) {
    std::string text = (section.wide ? "<section class=\"wide\">" : "<section>") +
                       std::string("\n<h2>") + section.title + "</h2>\n<p class=\"soft\">" +
                       section.text + "</p>\n<table>\n<thead><tr>";
    for (size_t i = 0; i < section.heads.size(); ++i) {
        text += (i == 0 ? "<th>" : "<th class=\"number\">") + section.heads[i] + "</th>";
        if (i == 0) text += "<td></td>";
    }
    text += "</tr></thead>\n<tbody>\n";
    for (const Row& row : section.rows) {
        text += "<tr><th scope=\"row\">" + row.name + "</th><td class=\"bar\">" + bar(row.parts) +
                "</td>";
        for (size_t i = 0; i < row.figures.size(); ++i)
            text += "<td class=\"number\" data-head=\"" + section.heads[i + 1] + "\">" +
                    row.figures[i] + "</td>";
        text += "</tr>\n";
    }
    return text + "</tbody>\n</table>\n</section>\n";
}

/// One figure of each segment size.
template <typename Value, typename Text>
Section bySize(const ScanResult& result, const Section& head, Value value, Text text) {
    Section section = head;
    double most = 0;
    for (const SizeResult& size : result.sizes)
        most = std::max(most, value(size));
    for (const SizeResult& size : result.sizes) {
        section.rows.push_back({tool::humanBytes(size.segmentSize),
                                {{"figure", ratio(value(size), most)}},
                                {text(size), tool::humanCount(size.all().segments)}});
    }
    return section;
}

Section ofShares(const Section& head, const std::vector<Share>& shares) {
    Section section = head;
    uint64_t most = 0;
    for (const Share& share : shares)
        if (!share.name.empty()) most = std::max(most, share.bytes);
    for (const Share& share : shares) {
        Row row{escaped(share.name),
                {{"unique", ratio(share.bytes - share.repeated, most)},
                 {"repeated", ratio(share.repeated, most)}},
                {tool::humanCount(share.files), tool::humanBytes(share.bytes),
                 number("%.1f %%", 100 * ratio(share.repeated, share.bytes))}};
        if (share.name.empty()) {  // the sum of all others, whose bar would dwarf the rest
            row.name = "<i>all others</i>";
            row.parts.clear();
        }
        section.rows.push_back(std::move(row));
    }
    return section;
}

Section ofCopies(const Section& head, const std::vector<FirstCopy>& copies) {
    Section section = head;
    for (const FirstCopy& copy : copies) {
        section.rows.push_back({escaped(copy.path),
                                {{"repeated", ratio(copy.again, copies.front().again)}},
                                {tool::humanCount(copy.files), tool::humanBytes(copy.again)}});
    }
    return section;
}

/// An entry of a legend.
std::string key(const std::string& style) {
    return "<span><svg class=\"key " + style +
           "\" viewBox=\"0 0 1 1\"><rect width=\"1\" height=\"1\"/></svg> " + style + "</span>";
}

std::string sections(const ScanResult& result, const Findings& findings) {
    std::string text;
    if (result.sizes.size() > 1) {
        text += html(bySize(
            result,
            {"Dedup ratio by segment size",
             "Smaller segments find more repeats.",
             {"Segment size", "ratio", "segments"},
             {},
             false},
            [](const SizeResult& size) { return size.dedupRatio(); }, ratioText));
        text += html(bySize(
            result,
            {"Cache memory by segment size",
             "Each unique segment takes an entry.",
             {"Segment size", "memory", "segments"},
             {},
             false},
            [](const SizeResult& size) { return static_cast<double>(size.cacheBytes()); },
            [](const SizeResult& size) { return tool::humanBytes(size.cacheBytes()); }));
    }
    const std::string segments =
        "In segments of " + tool::humanBytes(result.sizes.front().segmentSize);
    const std::string keys =
        segments + ": <span class=\"keys\">" + key("unique") + ", " + key("repeated") + "</span>.";
    text += html(ofShares({"By folder", keys, {"Folder", "files", "data", "repeated"}, {}, false},
                          findings.folders(kMostRows)));
    text += html(ofShares({"By file type", keys, {"Type", "files", "data", "repeated"}, {}, false},
                          findings.types(kMostRows)));
    const std::vector<FirstCopy> copies = findings.copies(kMostRows);
    const std::string most = copies.empty() ? "No data of this scan is repeated."
                                            : segments + ", by the file that has the first copy.";
    return text +
           html(ofCopies(
               {"Largest duplicates", most, {"First copy", "files with copies", "data"}, {}, true},
               copies));
}

std::string tiles(const ScanResult& result) {
    const SizeResult& size = result.sizes.front();
    const std::vector<std::pair<const char*, std::string>> figures = {
        {"Files", tool::humanCount(result.files)},
        {"Data", tool::humanBytes(size.all().bytes)},
        {"Dedup ratio", ratioText(size)},
        {"Repeated", tool::humanBytes(size.repeated().bytes)},
        {"Cache entries", tool::humanCount(size.cache.cachedItems)},
        {"Cache memory", tool::humanBytes(size.cacheBytes())},
    };
    std::string text;
    for (const auto& [name, figure] : figures)
        text += std::string("<div><dt>") + name + "</dt><dd>" + figure + "</dd></div>\n";
    return text;
}

std::string notes(const ScanResult& result) {
    std::string text;
    const auto note = [&](const std::string& line) {
        text += "<p class=\"note\">" + line + "</p>\n";
    };
    if (result.interrupted) note("The scan was interrupted: this is what was read until then.");
    if (result.skipped > 0) {
        note(tool::counted(result.skipped, "file or folder", "files or folders") +
             " could not be read.");
    }
    if (const Amount& left = result.sizes.front().of(Fate::kUncached); left.segments > 0) {
        note(tool::counted(left.segments, "segment", "segments") + " (" +
             tool::humanBytes(left.bytes) +
             ") did not fit into the cache: repeats of them count as unique.");
    }
    return text;
}

std::string subject(const ScanOptions& options, const ScanResult& result) {
    std::string paths;
    for (const std::string& path : options.walk.paths)
        paths += (paths.empty() ? "" : ", ") + escaped(path);
    if (!options.walk.listFile.empty()) {
        paths += (paths.empty() ? "" : ", ") +
                 tool::counted(options.walk.listed.size(), "path", "paths") + " of a list";
    }
    return paths + ": scanned " + tool::localTime(time(nullptr)) + " in " +
           tool::humanSeconds(result.seconds) + ", segments of " +
           tool::humanBytes(result.sizes.front().segmentSize) + " named by " +
           escaped(options.digest) + '.';
}

}  // namespace

std::string scanPage(const ScanOptions& options, const ScanResult& result,
                     const Findings& findings) {
    const std::map<std::string_view, std::string> values = {
        {"subject", subject(options, result)},
        {"notes", notes(result)},
        {"tiles", tiles(result)},
        {"sections", sections(result, findings)},
    };
    std::string page;
    std::string_view left = kScanPage;
    for (size_t at = left.find("{{"); at != std::string_view::npos; at = left.find("{{")) {
        const size_t end = left.find("}}", at);
        page += left.substr(0, at);
        page += values.at(left.substr(at + 2, end - at - 2));
        left.remove_prefix(end + 2);
    }
    return page += left;
}

}  // namespace agent
