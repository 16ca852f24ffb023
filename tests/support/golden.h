// What a transcript can be made of.
#ifndef TESTS_GOLDEN_H
#define TESTS_GOLDEN_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace golden {

/// A command: its name and its arguments, at least six of them, absent ones empty.
using Words = std::vector<std::string>;
/// Runs a command and says what came back, in a line or not at all.
using Verb = std::function<std::string(const Words&)>;
using Verbs = std::map<std::string, Verb>;

/// The objects of one transcript, and the commands that use them.
struct Scene {
    virtual ~Scene() = default;
    Verbs verbs;
};

std::unique_ptr<Scene> cacheScene();
std::unique_ptr<Scene> sessionScene();

/// A word as a text: "null", "empty", "x*300" for 300 times x; "_" is a space, "~" LF, "^" CR.
struct Text {
    explicit Text(const std::string& word);
    const char* get() const { return isNull ? nullptr : text.c_str(); }
    std::string text;
    bool isNull;
};

/// The commands about POs and images, for the session of another scene.
std::unique_ptr<Scene> poScene(std::function<struct MBSession*()> session);

uint32_t number(const std::string& word);
std::string withSlot(const std::string& result);
std::string status(uint32_t status);

}  // namespace golden

#endif
