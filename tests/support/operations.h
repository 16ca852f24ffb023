// Calls of the libraries as lines of text: the name of a function, then a word for each of its
// parameters. Transcripts, torture, captures and fuzzing make their calls by the same rows.
//
// A handle takes no word. Other objects, records and outputs take "null" or any other word, which
// stands for the object of the scene or for a place of its own. Behind the status and the slot
// stand the outputs in the order of the parameters, each with its name in the row.
#ifndef TESTS_OPERATIONS_H
#define TESTS_OPERATIONS_H

#include <concepts>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kscache.h"
#include "mb/mb_int.h"

namespace operations {

/// A line's words, the name first; absent ones are empty.
struct Words : std::vector<std::string> {
    explicit Words(const std::string& line);
    const std::string& operator[](size_t i) const { return i < size() ? at(i) : kNone; }
    static inline const std::string kNone;
};

/// A word as a text: "null", "empty", "x*300" for 300 times x; "_" is a space, "~" LF, "^" CR.
/// Behind a "=" a text stands as it is.
struct Text {
    explicit Text(const std::string& word);
    const char* get() const { return isNull ? nullptr : text.c_str(); }
    std::string text;
    bool isNull;
};

/// A number of up to 64 bits, with or without a sign; an empty word is 0.
uint64_t number(const std::string& word);

/// A text as it is shown: quoted, long ones cut, with their length.
std::string quoted(const char* text);

/// A result with the calling thread's slot behind it.
std::string withSlot(const std::string& result);

/// Whether an option of the configuration is a text.
bool isText(uint32_t code);

/// Option records from a word: "CODE=VALUE,CODE=VALUE#TIMES", or "null" for no record at all.
class Options {
  public:
    explicit Options(const std::string& word);
    std::vector<KSOption> records;

  private:
    std::vector<Text> texts_;
};

/// The texts of a configuration, by name, each with its field.
std::vector<std::pair<const char*, std::span<const char>>> textsOf(const KSConfig& config);

/// The objects that calls use, replace and leave behind.
struct Objects {
    Objects();
    virtual ~Objects();
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;

    virtual void enter() {}  ///< the last thing before the library is called
    virtual void leave() {}  ///< the first thing after it

    MBSession* session = nullptr;
    MBPOCursor* cursor = nullptr;
    KSCache* cache = nullptr;
    KSCacheHold* hold = nullptr;
    KSCacheCursor place{};
    KSConfig config{};
    MBPOFilter filter{};
    PO po{};
    bool noHandle = false;  ///< calls get NULL for session and cache
    uint32_t status = 0;    ///< of the last call: its result, or the slot when it made no object
    bool changed = false;   ///< whether the last call changed the session or the configuration
    bool gaveText = false;  ///< whether the last call handed out a text
    std::string filterText;
};

/// Makes a call and says what came back, or nothing.
struct Operation {
    std::function<std::string(Objects&, const Words&)> run;
    std::string kinds = {};  ///< for each word: t text, n number, p options, o other
};
using Operations = std::map<std::string, Operation>;

/// Every function of mb.h and ks.h that can fail, and "filter", which fills the filter in.
const Operations& client();

/// Makes the call of a line.
std::string run(Objects& objects, const std::string& line);

/// A row of tests/mb/operations.txt, with "$URL" and "$CONFIG" filled in.
struct Row {
    std::string call;
    std::vector<std::string> before;
    uint32_t again;  ///< also right when a call is repeated that failed
    std::string shows;
};
std::vector<Row> rows(const std::string& url, const std::string& config);

/// What the arguments of one call share.
struct Call {
    Objects& objects;
    const Words& words;
    std::istringstream names;
    size_t at = 0;
    std::string outputs = {};

    const std::string& word() { return words[++at]; }
    bool isGiven() { return word() != "null"; }
    void show(bool given, const std::string& output) {
        std::string name;
        names >> name;
        if (given) outputs += ", " + (name.empty() ? "" : name + " ") + output;
    }
};

/// What stands for a parameter of a type: made from its word, passed by get(), then shown.
template <typename Parameter>
struct Argument;

struct Input {
    void show(Call&) {}
};

template <std::integral Number>
struct Argument<Number> : Input {
    static constexpr char kKind = 'n';
    explicit Argument(Call& call) : value(static_cast<Number>(number(call.word()))) {}
    Number get() const { return value; }
    Number value;
};

template <>
struct Argument<const char*> : Text, Input {
    static constexpr char kKind = 't';
    explicit Argument(Call& call) : Text(call.word()) {}
};

/// An output that holds something before the call.
template <typename Value>
struct Output {
    static constexpr char kKind = 'o';
    Output(Call& call, Value before) : value(before), isGiven(call.isGiven()) {}
    Value* get() { return isGiven ? &value : nullptr; }
    Value value;
    bool isGiven;
};

template <std::integral Number>
struct Argument<Number*> : Output<Number> {
    explicit Argument(Call& call) : Output<Number>(call, 99) {}
    void show(Call& call) const { call.show(this->isGiven, std::to_string(this->value)); }
};

/// A text that the cursor keeps.
template <>
struct Argument<const char**> : Output<const char*> {
    explicit Argument(Call& call) : Output(call, "untouched") {}
    void show(Call& call) const { call.show(isGiven, quoted(value)); }
};

/// A text that is the caller's from now on.
template <>
struct Argument<char**> : Output<char*> {
    explicit Argument(Call& call) : Output(call, const_cast<char*>("untouched")) {}
    void show(Call& call) {
        call.show(isGiven, quoted(value));
        if (value == nullptr || strcmp(value, "untouched") == 0) return;
        call.objects.gaveText = true;
        free(value);
    }
};

template <>
struct Argument<MBImageRetentionInfo*> : Output<MBImageRetentionInfo> {
    explicit Argument(Call& call) : Output(call, {-1, -2, -3, -4, "old"}) {}
    void show(Call& call) const;
};

std::string shown(const MBEvent& event);
std::string shown(const MBStatistics& statistics);

/// A record that carries its size: "small" for one that is too small, "large" for a newer one.
template <typename Record>
requires(std::same_as<Record, MBEvent> ||
         std::same_as<Record, MBStatistics>) struct Argument<Record*> {
    static constexpr char kKind = 'o';
    explicit Argument(Call& call) : word(call.word()) {
        records[0].size = sizeof(Record) + (word == "large" ? 8 : 0) - (word == "small" ? 1 : 0);
    }
    Record* get() { return word == "null" ? nullptr : records; }
    void show(Call& call) const { call.show(word != "null", shown(records[0])); }
    Record records[2]{};  ///< the second one is room behind the first
    std::string word;
};

/// An object of the scene, or NULL.
template <typename Object>
struct Own : Input {
    static constexpr char kKind = 'o';
    Own(Call& call, Object* own) : object(call.isGiven() ? own : nullptr) {}
    Object* get() const { return object; }
    Object* object;
};

template <>
struct Argument<MBPOCursor*> : Own<MBPOCursor> {
    explicit Argument(Call& call) : Own(call, call.objects.cursor) {}
};
template <>
struct Argument<const KSCacheHold*> : Own<const KSCacheHold> {
    explicit Argument(Call& call) : Own(call, call.objects.hold) {}
};
template <>
struct Argument<const MBPOFilter*> : Own<const MBPOFilter> {
    explicit Argument(Call& call) : Own(call, &call.objects.filter) {}
};
template <>
struct Argument<PO*> : Own<PO> {
    explicit Argument(Call& call) : Own(call, &call.objects.po) {}
    void show(Call& call) const {
        const PO& po = call.objects.po;
        call.show(object != nullptr, quoted(po.text) + " of type " + std::to_string(po.stype));
    }
};

template <>
struct Argument<const KSOption*> : Options, Input {
    static constexpr char kKind = 'p';
    explicit Argument(Call& call) : Options(call.word()) {}
    const KSOption* get() const { return records.empty() ? nullptr : records.data(); }
};

/// A record that a call may change, with its bytes before.
template <typename Record>
struct Changed {
    explicit Changed(Record* object) : record(object) {
        if (record == nullptr) return;
        const auto* bytes = reinterpret_cast<const char*>(record);
        before.assign(bytes, bytes + sizeof(Record));
    }
    Record* get() const { return record; }
    void show(Call& call) const {
        if (before.empty() || memcmp(before.data(), record, before.size()) == 0) return;
        call.objects.changed = true;
        call.outputs += ", changed";
    }
    Record* record;
    std::vector<char> before;
};

template <>
struct Argument<MBSession*> : Changed<MBSession> {
    static constexpr char kKind = ' ';
    explicit Argument(Call& call)
        : Changed(call.objects.noHandle ? nullptr : call.objects.session) {}
};
template <>
struct Argument<const MBSession*> : Argument<MBSession*> {
    explicit Argument(Call& call) : Argument<MBSession*>(call) {}
};
template <>
struct Argument<KSConfig*> : Changed<KSConfig> {
    static constexpr char kKind = 'o';
    explicit Argument(Call& call) : Changed(call.isGiven() ? &call.objects.config : nullptr) {}
};

/// The result of a call that makes an object; without one, the slot has the status.
std::string made(Objects& objects, const std::string& what, bool exists);

/// Releases the object that a call is about to replace, and keeps the one that it made.
template <typename Result>
struct Returned {
    static void release(Objects&) {}
    static std::string keep(Objects& objects, Result result) {
        objects.status = static_cast<uint32_t>(result);
        return withSlot(std::to_string(result));
    }
};
template <>
struct Returned<MBPOCursor*> {
    static void release(Objects& objects) { MBPOFindClose(std::exchange(objects.cursor, nullptr)); }
    static std::string keep(Objects& objects, MBPOCursor* cursor) {
        objects.cursor = cursor;
        return made(objects, "a cursor", cursor != nullptr);
    }
};
template <>
struct Returned<MBSession*> {
    static void release(Objects& objects) { MBShutdown(std::exchange(objects.session, nullptr)); }
    static std::string keep(Objects& objects, MBSession* session) {
        objects.session = session;
        const std::string word = std::to_string(session != nullptr ? session->callerWord : 0);
        return made(objects, "session " + word, session != nullptr);
    }
};

/// The row of a function: its words, and its outputs by the names given.
template <typename Result, typename... Parameters>
Operation bind(Result (*function)(Parameters...), const char* names = "") {
    const auto run = [=](Objects& objects, const Words& words) {
        Call call{objects, words, std::istringstream(names)};
        std::string out;
        std::tuple<Argument<Parameters>...> arguments{Argument<Parameters>(call)...};
        std::apply(
            [&](auto&... each) {
                objects.changed = objects.gaveText = false;
                if constexpr (std::is_void_v<Result>) {
                    objects.enter();
                    function(each.get()...);
                    objects.leave();
                    out = withSlot("done");
                } else {
                    Returned<Result>::release(objects);
                    objects.enter();
                    Result result = function(each.get()...);
                    objects.leave();
                    out = Returned<Result>::keep(objects, result);
                }
                (each.show(call), ...);
            },
            arguments);
        return out + call.outputs;
    };
    std::string kinds{Argument<Parameters>::kKind...};
    std::erase(kinds, ' ');
    return {run, kinds};
}

}  // namespace operations

#endif
