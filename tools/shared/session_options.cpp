#include "tools/shared/session_options.h"

#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

namespace tool {
namespace {

constexpr size_t kLongestLogin = 255;
constexpr size_t kLongestUrl = 1023;
constexpr size_t kLongestPath = 4095;

}  // namespace

CLI::Validator textUpTo(size_t longest) {
    return {[longest](std::string& text) -> std::string {
                if (text.empty()) return "may not be empty";
                if (text.size() <= longest) return {};
                return "may have up to " + std::to_string(longest) + " characters";
            },
            ""};
}

CLI::Validator numberUpTo(uint64_t most) {
    return {[most](const std::string& text) -> std::string {
                uint64_t number = 0;
                const char* end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, number);
                if (error == std::errc() && stop == end && number <= most) return {};
                return "is no number from 0 to " + std::to_string(most);
            },
            ""};
}

void addSessionOptions(CLI::App& app, SessionOptions& session) {
    app.add_option("--config", session.config, "Agent configuration [the first that exists]")
        ->type_name("FILE")
        ->check(textUpTo(kLongestPath));
    app.add_option("--server", session.server, "Metabase server [the configuration's]")
        ->type_name("URL")
        ->check(textUpTo(kLongestUrl));
    app.add_option("--login", session.login, "Login")
        ->type_name("NAME")
        ->envname("KSPOOL_LOGIN")
        ->check(textUpTo(kLongestLogin))
        ->check(CLI::Validator(
            [](const std::string& login) {
                return login.find(':') == std::string::npos ? "" : "may not hold a colon";
            },
            ""));
    app.add_option("--password-file", session.passwordFile,
                   "File whose first line is the password; - for standard input")
        ->type_name("FILE")
        ->check(textUpTo(kLongestPath));
    app.add_option("--retry", session.retry, "Seconds to try again to reach the server [0]")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 3600));
    CLI::Option* quiet = app.add_flag("-q,--quiet", session.quiet, "No notes");
    app.add_flag("-v,--verbose", session.verbose,
                 "Show each request, and the library's messages, on stderr")
        ->excludes(quiet);
}

}  // namespace tool
