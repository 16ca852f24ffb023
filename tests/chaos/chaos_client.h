// A session that makes requests at random, and its ledger.
#ifndef TESTS_CHAOS_CHAOS_CLIENT_H
#define TESTS_CHAOS_CHAOS_CLIENT_H

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "mb/mb_int.h"
#include "platform/events.h"
#include "platform/ws.h"
#include "tests/chaos/chaos_ledger.h"

namespace chaos {

/// The code of the events that a server is told to make up.
constexpr uint32_t kOrderedEvent = 4711;

/// Response time-outs in seconds. The longest faults of faults.json take longer than the first and
/// shorter than the second.
constexpr int32_t kImpatient = 1, kPatient = 3, kForReview = 60;

struct Pool {
    std::string url, config, password;
};

/// Has a folder and a client's name of its own. One thread at a time.
class Client {
  public:
    Client(unsigned number, uint64_t seed, const Pool& pool)
        : folder_("/s" + std::to_string(number)),
          name_("c" + std::to_string(number)),
          random_(seed + number),
          session_(MBInitWithAgentCfg(pool.url.c_str(), 0, "agent", pool.password.c_str(),
                                      pool.config.c_str())) {
        if (session_ == nullptr) throw std::runtime_error("no session could be made");
        MBSetResponseTimeOut(session_, kImpatient);
        if (number % 2 != 0) MBEnableResiliency(session_, 2);
        for (const std::string& thing : thingsOf(kEntry, tree()))
            ledger_.had(thing);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { MBShutdown(session_); }

    const std::string& folder() const { return folder_; }
    const Ledger& ledger() const { return ledger_; }
    uint64_t count(Outcome outcome) const { return counts_[outcome]; }
    uint64_t aborted() const { return aborted_; }
    uint64_t timedOut() const { return timedOut_; }
    const std::vector<std::string>& differences() const { return differences_; }

    /// Any thread may call this while the session runs.
    void abort() { MBAbort(session_); }

    /// Makes requests until `done`, which it counts up, has reached `count`.
    void run(std::atomic<uint64_t>& done, uint64_t count) {
        unsigned total = 0;
        for (const Row& row : kRows)
            total += row.weight;
        for (uint64_t own = 0; done.fetch_add(1) < count; ++own) {
            if (below(20) == 0)
                MBSetResponseTimeOut(session_, below(2) == 0 ? kImpatient : kPatient);
            if (own % 200 == 0) {
                openBucket();
                continue;
            }
            const Row* row = kRows;
            for (uint64_t at = below(total); at >= row->weight; ++row)
                at -= row->weight;
            (this->*row->request)(row->kind);
        }
    }

    /// Asks for all that it has ever made, without faults.
    void review() {
        MBSetResponseTimeOut(session_, kForReview);
        for (const Kind kind : {kEntry, kPO, kImage})
            if (read(kind, folder_, kind == kEntry ? folder_ : "") != kConfirmed)
                differences_.push_back("no review");
    }

  private:
    enum Kind { kEntry, kPO, kImage, kKinds };
    struct Item {
        std::string path;
        bool isTree = false;
    };
    struct Row {
        unsigned weight;
        void (Client::*request)(Kind);
        Kind kind;
    };
    static const Row kRows[15];
    static constexpr const char* kNames[] = {"entry ", "po ", "image "};

    /// Makes a request and says what may be concluded. `refusal` is the event it deserves, or 0.
    template <typename Call>
    Outcome ask(const std::string& what, Call call, uint32_t refusal = 0) {
        const uint32_t status = call();
        Outcome outcome = kRefused;
        if (status == CR_STATUS_OK) {
            outcome = kConfirmed;
        } else if (status == WS_STATUS_TIMED_OUT || status == WS_STATUS_CUT ||
                   status == WS_STATUS_BAD_ANSWER || status == WS_STATUS_TOO_LARGE ||
                   status == WS_STATUS_ABORTED) {
            aborted_ += status == WS_STATUS_ABORTED ? 1 : 0;
            timedOut_ += status == WS_STATUS_TIMED_OUT ? 1 : 0;
            outcome = kUnknown;
        } else if (status == WS_STATUS_NO_CONNECT || status == WS_STATUS_CONNECT_TIMED_OUT) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        } else {
            MBEvent last = {};
            last.size = sizeof last;
            MBLastEvent(session_, &last);
            const uint32_t event = last.eventCode != 0 ? last.eventCode : status;
            if (event != kOrderedEvent && event != refusal) {
                differences_.push_back(what + ": status " + std::to_string(status) + ", event " +
                                       std::to_string(event));
            }
        }
        ++counts_[outcome];
        return outcome;
    }

    uint64_t below(uint64_t limit) { return random_() % limit; }
    std::string fresh() { return bucket_ + "/t" + std::to_string(++tokens_); }
    Item tree() const { return {folder_ + "/tree", true}; }
    Item& any(Kind kind) { return items_[kind][below(items_[kind].size())]; }
    static std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }
    static std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

    static std::vector<std::string> thingsOf(Kind kind, const Item& item) {
        const std::string thing = kNames[kind] + item.path;
        if (item.isTree) return {thing, thing + "/a", thing + "/b"};
        return {thing};
    }
    void made(Kind kind, const Item& item, Outcome outcome) {
        for (const std::string& thing : thingsOf(kind, item))
            ledger_.make(thing, outcome);
        if (outcome == kConfirmed) items_[kind].push_back(item);
    }
    /// Of those that are there for certain; what was refused to go still is.
    template <typename Call>
    Outcome removeAny(Kind kind, Call call) {
        std::swap(any(kind), items_[kind].back());
        const Item item = items_[kind].back();
        items_[kind].pop_back();
        const Outcome outcome = ask("remove", [&] { return call(item); });
        for (const std::string& thing : thingsOf(kind, item))
            ledger_.remove(thing, outcome);
        if (outcome == kRefused) items_[kind].push_back(item);
        return outcome;
    }

    std::string poLine(const std::string& path) const {
        return "1|1||0|0|" + name_ + "|p|i|" + folderOf(path) + "|" + nameOf(path) +
               "|d|f||||1|0|0|0|0|0|0|0|0|0|\n";
    }
    uint32_t makeDirectory(const std::string& path) { return MBDirCreate(session_, path.c_str()); }
    uint32_t setImage(const std::string& path, int32_t flags) {
        return MBSetLastImageV2(session_, 1, name_.c_str(), folderOf(path).c_str(), 0, 1,
                                nameOf(path).c_str(), flags);
    }

    /// Lists stay short when what is asked for is in a folder that is often a new one.
    void openBucket() {
        const std::string path = folder_ + "/b" + std::to_string(++tokens_);
        const Outcome outcome = ask("bucket", [&] { return makeDirectory(path); });
        ledger_.make(kNames[kEntry] + path, outcome);
        if (outcome != kConfirmed) return;
        bucket_ = path;
        for (auto& items : items_)
            items.clear();
    }

    void make(Kind kind) {
        constexpr uint32_t (*kWays[])(MBSession*, uint32_t, const char*) = {MBPOAddList, MBPOImport,
                                                                            MBPOZELTAddList};
        std::vector<Item> items;
        std::string lines;
        for (uint64_t left = kind == kPO ? 1 + below(4) : 1; left > 0; --left) {
            items.push_back({fresh()});
            lines += poLine(items.back().path);
        }
        const auto way = kWays[below(3)];
        const Outcome outcome = ask("make", [&] {
            if (kind == kPO) return way(session_, 1, lines.c_str());
            return kind == kEntry ? makeDirectory(items[0].path) : setImage(items[0].path, 0);
        });
        for (const Item& item : items)
            made(kind, item, outcome);
    }

    void remove(Kind kind) {
        if (items_[kind].empty()) return make(kind);
        removeAny(kind, [&](const Item& item) {
            const std::string& path = item.path;
            if (kind == kPO) return MBPOExpire(session_, 1, poLine(path).c_str());
            if (kind == kEntry) return MBFileDelete(session_, path.c_str(), 1);
            return MBDeleteImage(session_, 1, name_.c_str(), folderOf(path).c_str(),
                                 nameOf(path).c_str(), 0);
        });
    }

    void copy(Kind kind) {
        const Item source = items_[kind].empty() || below(2) == 0 ? tree() : any(kind);
        const Item target = {fresh(), source.isTree};
        made(kind, target, ask("copy", [&] {
                 return MBFileCopy(session_, source.path.c_str(), target.path.c_str(), 1);
             }));
    }

    void move(Kind kind) {
        if (items_[kind].empty()) return make(kind);
        Item target = {fresh()};
        const Outcome outcome = removeAny(kind, [&](const Item& source) {
            target.isTree = source.isTree;
            return MBFileMove(session_, source.path.c_str(), target.path.c_str(), 0);
        });
        made(kind, target, outcome);
    }

    /// What is there already; an image only changes.
    void makeAgain(Kind kind) {
        if (items_[kind].empty()) return make(kind);
        std::swap(any(kind), items_[kind].back());
        const std::string path = items_[kind].back().path;
        const auto flags = static_cast<int32_t>(++tokens_);
        Outcome outcome;
        if (kind == kImage) {
            outcome = ask("change", [&] { return setImage(path, flags); });
            ledger_.change("~image " + path + " " + std::to_string(flags), outcome);
        } else {
            outcome = ask(
                "make again", [&] { return makeDirectory(path); }, POOL_EVENT_ENTRY_EXISTS);
            ledger_.make(kNames[kind] + path, outcome);
        }
        // Carried out later than a remove that follows, it would make the thing once more.
        if (outcome == kUnknown) items_[kind].pop_back();
    }

    void removeNothing(Kind kind) {
        const std::string path = fresh();
        const auto remove = [&] { return MBFileDelete(session_, path.c_str(), 1); };
        ledger_.remove(kNames[kind] + path, ask("remove nothing", remove, POOL_EVENT_NO_ENTRY));
    }

    void list(Kind kind) { read(kind, bucket_, bucket_); }

    /// What is below a path; `where` is how to ask for it, which may be empty for all.
    Outcome read(Kind kind, const std::string& path, const std::string& where) {
        char* text = nullptr;
        const Outcome outcome = ask("list", [&]() -> uint32_t {
            if (kind == kEntry) return MBDirList(session_, where.c_str(), &text, nullptr, 1);
            if (kind == kPO) return find(where, &text);
            const uint32_t status =
                MBGetLastImages(session_, 1, name_.c_str(), where.c_str(), -1, 0, &text);
            return status == CR_STATUS_REMOTE_ERROR ? uint32_t{CR_STATUS_OK} : status;  // no image
        });
        std::istringstream lines(text != nullptr ? text : "");
        free(text);
        if (outcome != kConfirmed) return outcome;
        std::set<std::string> listed;
        size_t number = 0;
        for (std::string line; std::getline(lines, line);) {
            if (kind != kPO || ++number > 3) listed.insert(kNames[kind] + pathIn(kind, line, path));
        }
        ledger_.compare(kNames[kind] + path + "/", listed, differences_);
        return outcome;
    }

    uint32_t find(const std::string& where, char** text) {
        MBPOFilter filter{};
        filter.size = sizeof filter;
        MBPOFilterInit(&filter);
        filter.criterion6 = name_.c_str();
        if (!where.empty()) filter.criterion9 = where.c_str();
        const uint32_t status = MBPOFind(session_, 1, &filter, text, nullptr, nullptr);
        return status == CR_STATUS_NOT_FOUND ? uint32_t{CR_STATUS_OK} : status;
    }

    static std::string pathIn(Kind kind, const std::string& line, const std::string& above) {
        std::vector<std::string> fields;
        std::istringstream stream(line);
        for (std::string field; std::getline(stream, field, kind == kEntry ? ' ' : '|');)
            fields.push_back(field);
        if (kind == kEntry) return above + "/" + fields.at(3);
        return kind == kPO ? fields.at(8) + "/" + fields.at(9) : fields.at(2) + "/" + fields.at(4);
    }

    void time(Kind) {
        uint32_t told = 0;
        if (ask("time", [&] { return MBGetTime(session_, &told); }) != kConfirmed) return;
        const int64_t apart = ::time(nullptr) - int64_t{told};
        if (apart < -1 || apart > 60) differences_.push_back("time: " + std::to_string(told));
    }

    std::string folder_, name_, bucket_ = folder_;
    std::mt19937_64 random_;
    MBSession* session_;
    Ledger ledger_;
    std::vector<Item> items_[kKinds];  ///< those in the bucket that are there for certain
    uint64_t tokens_ = 0, aborted_ = 0, timedOut_ = 0;
    uint64_t counts_[kOutcomes] = {};
    std::vector<std::string> differences_;
};

inline const Client::Row Client::kRows[15] = {
    {14, &Client::make, kEntry},     {13, &Client::make, kPO},
    {7, &Client::make, kImage},      {9, &Client::remove, kEntry},
    {8, &Client::remove, kPO},       {4, &Client::remove, kImage},
    {6, &Client::list, kEntry},      {6, &Client::list, kPO},
    {4, &Client::list, kImage},      {4, &Client::makeAgain, kEntry},
    {4, &Client::makeAgain, kImage}, {10, &Client::copy, kEntry},
    {10, &Client::move, kEntry},     {4, &Client::removeNothing, kEntry},
    {7, &Client::time, kEntry},
};

}  // namespace chaos

#endif
