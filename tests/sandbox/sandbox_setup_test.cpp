// Folders that init makes, and servers over TLS from them.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "sandbox/sandbox.h"

namespace {

namespace fs = std::filesystem;

class Setup : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(top);
        fs::create_directories(top);
    }
    void TearDown() override { fs::remove_all(top); }

    std::string contents(const std::string& name) const {
        std::ifstream file(folder + "/" + name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// Empty, or the reason of a failure.
    std::string setUp(const std::string& url, bool tls = false) {
        try {
            sandbox::setUp({folder, url, tls});
            return {};
        } catch (const std::exception& error) {
            return error.what();
        }
    }
    size_t filesBeside() const {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(top), fs::directory_iterator()));
    }

    // Tests run side by side.
    const std::string top = testing::TempDir() + "kspool-setup-test-" + std::to_string(getpid());
    const std::string folder = top + "/made";
};

TEST_F(Setup, MakesAFolderThatServes) {
    fs::create_directory(folder);
    ASSERT_EQ(setUp("http://127.0.0.1:45678/pool/"), "");
    EXPECT_NE(contents("agent.cfg").find("\nurl = http://127.0.0.1:45678/pool\n"),
              std::string::npos);
    EXPECT_EQ(contents("agent.cfg").find("ssl-key"), std::string::npos);
    for (const char* name : {"agent.cfg", "accounts.json", "agent.password", "reader.password"}) {
        struct stat status {};
        ASSERT_EQ(stat((folder + "/" + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600U) << name;
    }
    const std::string password = contents("agent.password");
    EXPECT_EQ(contents("accounts.json").find(password.substr(0, password.size() - 1)),
              std::string::npos);
    sandbox::Settings settings = sandbox::readSetup(folder);
    EXPECT_EQ(settings.port, 45678);
    settings.port = 0;
    const sandbox::Server server(settings);
    EXPECT_TRUE(server.url().ends_with(std::to_string(server.port()) + "/pool"));
    EXPECT_TRUE(fs::exists(folder + "/pool.db"));
}

TEST_F(Setup, RefusesAndLeavesNothing) {
    fs::create_directory(folder);
    std::ofstream(folder + "/mine") << "precious";
    const std::string reason = setUp("http://127.0.0.1:1");
    EXPECT_NE(reason.find("not empty"), std::string::npos) << reason;
    EXPECT_EQ(contents("mine"), "precious");
    EXPECT_EQ(filesBeside(), 1U);
    fs::remove_all(folder);
    const std::pair<const char*, bool> bad[] = {
        {"ftp://127.0.0.1", false},    {"http://", false},         {"http://a:0", false},
        {"http://a:65536", false},     {"http://a:1x", false},     {"http://u@a", false},
        {"http://a/b?c", false},       {"http://[::1]:80", false}, {"https://a", false},
        {"http://127.0.0.1:80", true},
    };
    for (const auto& [url, tls] : bad) {
        EXPECT_NE(setUp(url, tls), "") << url;
        EXPECT_EQ(filesBeside(), 0U) << url;
    }
    std::ofstream(folder) << "a file";
    EXPECT_NE(setUp("http://127.0.0.1:1"), "");
    EXPECT_THROW(sandbox::setUp({top + "/no/made", "http://a", false}), std::runtime_error);
    EXPECT_EQ(filesBeside(), 1U);
}

size_t collect(char* data, size_t size, size_t count, void* text) {
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

/// The body of an answer, or the name of the failure.
std::string fetch(const std::string& url, const std::string& keys, const std::string& ownKeys) {
    CURL* curl = curl_easy_init();
    std::string text;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, (keys + "/ca.pem").c_str());
    if (!ownKeys.empty()) {
        curl_easy_setopt(curl, CURLOPT_SSLCERT, (ownKeys + "/cert.pem").c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, (ownKeys + "/key.pem").c_str());
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &text);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    return code == CURLE_OK ? text : "failed";
}

TEST_F(Setup, TlsDemandsACertificateOfItsOwnAuthority) {
    ASSERT_EQ(setUp("https://127.0.0.1:45678", true), "");
    sandbox::setUp({top + "/other", "https://pool.example:1", true});
    sandbox::Settings settings = sandbox::readSetup(folder);
    settings.port = 0;
    sandbox::Server server(settings);
    const std::string keys = folder + "/tls/client";
    const std::string foreign = top + "/other/tls/client";
    const std::string place = ":" + std::to_string(server.port()) + "/__admin/health";
    EXPECT_NE(fetch("https://127.0.0.1" + place, keys, keys).find("\"ok\""), std::string::npos);
    EXPECT_NE(fetch("https://localhost" + place, keys, keys).find("\"ok\""), std::string::npos);
    EXPECT_EQ(fetch("https://127.0.0.1" + place, keys, ""), "failed");
    EXPECT_EQ(fetch("https://127.0.0.1" + place, keys, foreign), "failed");
    EXPECT_EQ(fetch("https://127.0.0.1" + place, foreign, keys), "failed");
    EXPECT_EQ(fetch("http://127.0.0.1" + place, keys, keys), "failed");
    // A refused client leaves the server fit for others.
    EXPECT_NE(fetch("https://127.0.0.1" + place, keys, keys).find("\"ok\""), std::string::npos);
    std::string text = server.admin("POST", "faults", R"([{"kind": "cut"}, {"kind": "garbage"}])");
    const std::string arch = "https://127.0.0.1:" + std::to_string(server.port()) + "/ws/arch";
    EXPECT_EQ(fetch(arch, keys, keys), "failed");
    EXPECT_EQ(fetch(arch, keys, keys), "failed");
}

}  // namespace
