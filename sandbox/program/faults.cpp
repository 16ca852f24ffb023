// kspool-sandbox faults: lists, prints and orders scenarios.
#include <curl/curl.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "sandbox/program/program.h"
#include "sandbox/scenarios.h"

namespace sandbox::program {
namespace {

struct Cleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t append(const char* data, size_t size, size_t count, void* text) {
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

/// "http://127.0.0.1:9080/pool" has its administration below "http://127.0.0.1:9080/__admin/".
std::string orderUrl(const std::string& url) {
    const size_t scheme = url.find("://");
    if (scheme == std::string::npos) fail("'" + url + "' is no URL");
    return url.substr(0, url.find('/', scheme + 3)) + "/__admin/faults";
}

void useKeys(CURL* handle, const std::string& folder) {
    if (folder.empty()) return;
    curl_easy_setopt(handle, CURLOPT_CAINFO, (folder + "/ca.pem").c_str());
    curl_easy_setopt(handle, CURLOPT_SSLCERT, (folder + "/cert.pem").c_str());
    curl_easy_setopt(handle, CURLOPT_SSLKEY, (folder + "/key.pem").c_str());
}

/// Orders faults on a running server; throws with the server's own words if it refuses.
void order(const FaultOptions& options) {
    const std::string body = nlohmann::json::array({{{"scenario", options.name}}}).dump();
    const std::unique_ptr<CURL, Cleanup> handle(curl_easy_init());
    const std::unique_ptr<curl_slist, Cleanup> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"));
    if (handle == nullptr || headers == nullptr) fail("not enough memory");
    std::string answer;
    curl_easy_setopt(handle.get(), CURLOPT_URL, orderUrl(options.url).c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
    useKeys(handle.get(), options.keys);
    const CURLcode code = curl_easy_perform(handle.get());
    if (code != CURLE_OK) fail(options.url + ": " + curl_easy_strerror(code));
    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    const auto json = nlohmann::json::parse(answer, nullptr, false);
    const bool object = json.is_object();
    if (status != 200) {
        fail(options.url + ": " +
             (object && json.contains("error") ? json["error"].get<std::string>()
                                               : "HTTP status " + std::to_string(status)));
    }
    if (!object || !json.contains("faults")) fail(options.url + ": not a sandbox");
    printf("%zu faults wait.\n", json["faults"].size());
}

}  // namespace

void faults(const FaultOptions& options) {
    if (options.name.empty()) {
        for (const auto& scenario : scenarioList()) {
            printf("%-15s %s\n", scenario["name"].get<std::string>().c_str(),
                   scenario["description"].get<std::string>().c_str());
        }
    } else if (options.url.empty()) {
        printf("%s", scenarioText(options.name).c_str());
    } else {
        order(options);
    }
    flush();
}

}  // namespace sandbox::program
