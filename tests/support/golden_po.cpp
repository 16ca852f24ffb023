// The commands of transcripts about POs and images.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "mb.h"
#include "mb/mb_int.h"
#include "tests/support/golden.h"
#include "tests/support/scripted_platform.h"

namespace golden {
namespace {

class POScene : public Scene {
  public:
    explicit POScene(std::function<MBSession*()> session);
    ~POScene() override {
        MBPOFindClose(cursor_);
        free(po_.text);
    }
    POScene(const POScene&) = delete;
    POScene& operator=(const POScene&) = delete;

  private:
    /// "size=0" and "6=text" change the filter, "default" makes it anew, "null" gives none.
    std::string filter(const Words& w) {
        hasFilter_ = w[1] != "null";
        if (w[1] == "default") filter_.size = sizeof filter_;
        uint32_t result = MBPOFilterInit(w[1] == "null" ? nullptr : &filter_);
        if (w[1].substr(0, 5) == "size=") {
            filter_.size = number(w[1].substr(5));
            result = MBPOFilterInit(&filter_);
        }
        if (w[1] == "6") filter_.criterion6 = (text6_ = Text(w[2]).text).c_str();
        if (w[1] == "12") filter_.criterion12 = static_cast<signed char>(w[2][0]);
        if (w[1] == "numbers") {
            filter_.criterion1 = INT32_MIN;
            filter_.criterion16 = INT64_MIN;
            filter_.criterion25 = INT32_MAX;
            memset(filter_.criterion15, 'f', sizeof filter_.criterion15 - 1);
            memset(filter_.criterion3, 't', sizeof filter_.criterion3 - 1);
        }
        char text[1024] = "";
        if (hasFilter_ && filter_.size == sizeof filter_) {
            kspool::_mbFilterToStringPrint(text, sizeof text, &filter_);
        }
        return status(result) + (*text != '\0' ? ", " + std::string(text) : "");
    }
    const MBPOFilter* given() const { return hasFilter_ ? &filter_ : nullptr; }

    std::string find(const Words& w) {
        char* text = const_cast<char*>("untouched");
        size_t length = 99;
        uint32_t count = 99;
        const bool bare = w[2] == "bare";
        const uint32_t result =
            MBPOFind(session_(), number(w[1]), given(), w[2] == "notext" ? nullptr : &text,
                     bare ? nullptr : &length, bare ? nullptr : &count);
        const std::string out = status(result) + ", text " + scripted::quoted(text) + ", length " +
                                std::to_string(length) + ", count " + std::to_string(count);
        if (text != nullptr && strcmp(text, "untouched") != 0) free(text);
        return out;
    }

    std::string first(const Words& w, bool lines) {
        MBPOFindClose(std::exchange(cursor_, nullptr));
        uint32_t count = 99;
        uint32_t* countOut = w[2] == "nocount" ? nullptr : &count;
        const bool noOutput = w[2] == "nooutput";
        line_ = const_cast<char*>("untouched");
        cursor_ = lines ? MBPOStringFindFirst(session_(), number(w[1]), given(),
                                              noOutput ? nullptr : &line_, countOut)
                        : MBPOFindFirst(session_(), number(w[1]), given(),
                                        noOutput ? nullptr : &po_, countOut);
        return withSlot(cursor_ != nullptr ? "a cursor" : "none") + ", count " +
               std::to_string(count) + shown(lines);
    }
    std::string next(const Words& w, bool lines) {
        const bool noOutput = w[1] == "nooutput";
        MBPOCursor* cursor = w[1] == "nocursor" ? nullptr : cursor_;
        const uint32_t result = lines ? MBPOStringFindNext(cursor, noOutput ? nullptr : &line_)
                                      : MBPOFindNext(cursor, noOutput ? nullptr : &po_);
        return status(result) + shown(lines);
    }
    std::string shown(bool lines) const {
        return lines
                   ? ", line " + scripted::quoted(line_)
                   : ", po " + scripted::quoted(po_.text) + " of type " + std::to_string(po_.stype);
    }

    /// Arguments that are "null" are left out, one at a time or all.
    std::string image(const Words& w);

    /// A text that comes back, "untouched" if it was not.
    template <typename Call>
    std::string textFrom(const Words& w, Call call) {
        char* text = const_cast<char*>("untouched");
        const uint32_t result = call(w[2] == "nooutput" ? nullptr : &text);
        const std::string out = status(result) + ", text " + scripted::quoted(text);
        if (text != nullptr && strcmp(text, "untouched") != 0) free(text);
        return out;
    }

    std::function<MBSession*()> session_;
    MBPOFilter filter_{};
    bool hasFilter_ = true;
    std::string text6_;
    MBPOCursor* cursor_ = nullptr;
    PO po_{};
    char* line_ = nullptr;
};

std::string POScene::image(const Words& w) {
    MBSession* s = session_();
    const uint32_t dsid = number(w[2]);
    const Text clientText(w[3].empty() ? "client" : w[3]),
        policyText(w[4].empty() ? "policy" : w[4]), imageText(w[5].empty() ? "image" : w[5]);
    const char *client = clientText.get(), *policy = policyText.get(), *name = imageText.get();
    constexpr int64_t kLow = INT64_MIN;
    if (w[1] == "set2")
        return status(MBSetLastImageV2(s, dsid, client, policy, -1, UINT64_MAX, name, -2));
    if (w[1] == "set")
        return status(MBSetLastImage(s, dsid, client, policy, UINT64_MAX, name, 5, 4294967296, -2));
    if (w[1] == "delete") return status(MBDeleteImage(s, dsid, client, policy, name, INT32_MIN));
    if (w[1] == "retain")
        return status(MBSetImageRetention(s, dsid, client, policy, name, -2, kLow, -1));
    MBImageRetentionInfo info{-1, -2, -3, -4, "old"};
    const uint32_t result =
        MBGetImageRetention(s, dsid, client, policy, name, w[6] == "nooutput" ? nullptr : &info);
    return status(result) + ", " + std::to_string(info.retentionValue1) + " " +
           std::to_string(info.retentionValue2) + " " + std::to_string(info.retentionValue3) + " " +
           std::to_string(info.retentionValue4) + " " + scripted::quoted(info.retentionText);
}

POScene::POScene(std::function<MBSession*()> session) : session_(std::move(session)) {
    const auto list = [this](auto call) {
        return [this, call](const Words& w) {
            return status(call(session_(), number(w[1]), Text(w[2]).get()));
        };
    };
    verbs = {
        {"import", list(MBPOImport)},
        {"addlist", list(MBPOAddList)},
        {"zeltaddlist", list(MBPOZELTAddList)},
        {"expire", list(MBPOExpire)},
        {"filter", [this](const Words& w) { return filter(w); }},
        {"search", [this](const Words& w) { return find(w); }},
        {"first", [this](const Words& w) { return first(w, false); }},
        {"next", [this](const Words& w) { return next(w, false); }},
        {"firstLine", [this](const Words& w) { return first(w, true); }},
        {"nextLine", [this](const Words& w) { return next(w, true); }},
        {"close",
         [this](const Words&) {
             MBPOFindClose(std::exchange(cursor_, nullptr));
             return withSlot("closed");
         }},
        {"image", [this](const Words& w) { return image(w); }},
        {"lastImages",
         [this](const Words& w) {
             return textFrom(w, [&](char** text) {
                 return MBGetLastImages(session_(), number(w[1]), nullptr, "p", -1, 7, text);
             });
         }},
        {"imagePolicy",
         [this](const Words& w) {
             return textFrom(w, [&](char** text) {
                 const Text client(w[3].empty() ? "client" : w[3]),
                     image(w[4].empty() ? "i" : w[4]);
                 return MBFindImagePolicy(session_(), number(w[1]), client.get(), image.get(),
                                          text);
             });
         }},
        {"hvx",
         [this](const Words& w) {
             int32_t digit = 99;
             const std::string out = textFrom(w, [&](char** text) {
                 return MBGetHVXTag(session_(), number(w[1]), w[3] == "nodigit" ? nullptr : &digit,
                                    text);
             });
             return out + ", digit " + std::to_string(digit);
         }},
    };
}

}  // namespace

std::unique_ptr<Scene> poScene(std::function<MBSession*()> session) {
    return std::make_unique<POScene>(std::move(session));
}

}  // namespace golden
