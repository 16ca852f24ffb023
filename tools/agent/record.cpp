#include "tools/agent/record.h"

#include <cstdio>

#include "platform/net.h"

namespace agent {

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

std::string poLine(const ImageName& name, const FileRecord& file, int64_t now) {
    const size_t slash = file.path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : file.path.substr(0, slash);
    const struct stat& s = file.status;
    std::string line;
    const auto text = [&](const std::string& value) { line += fieldText(value) + "|"; };
    const auto number = [&](auto value) { line += std::to_string(value) + "|"; };
    number(name.dataselection);
    number(1);  // kind: a file
    text("");   // origin
    number(static_cast<int32_t>(s.st_uid));
    number(static_cast<int32_t>(s.st_gid));
    text(name.client);
    text(name.policy);
    text(name.image);
    text(folder.empty() ? "/" : folder);
    text(file.path.substr(slash + 1));
    text(file.digest);
    text("f");
    text("segments");
    text("");
    text("kspool-agent");
    number(s.st_size);
    number(s.st_mtim.tv_sec);
    number(s.st_ctim.tv_sec);
    number(now);
    number(0);  // expires
    number(file.segments);
    number(file.newSegments);
    number(0);  // dcid
    number(static_cast<int32_t>(s.st_mode));
    number(0);  // flags
    return line + "\n";
}

}  // namespace agent
