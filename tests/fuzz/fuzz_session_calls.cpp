// Any sequence of calls of a session, with any outcome of its requests. What fails leaves the
// session as it was, and its results empty.
#include <cstring>
#include <iterator>

#include "mb/mb_int.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/fuzz_transport.h"

namespace {

class Calls {
  public:
    explicit Calls(fuzz::Input& input) : input_(input) {
        fuzz::onRequest = [this](WSResult& result) { return reply(result); };
        fuzz::setStatus = 0;
        MBSetRetryCount(2);
        MBSetTimeOut(0);
        const KSOption url = textOption(KS_OPT_MBS_URL, "http://127.0.0.1:1");
        session_ = MBCreateWithAgentCfg(4711, &url, 1, "/dev/null");
        MUST(session_ != nullptr);
    }
    ~Calls() {
        MBPOFindClose(strings_);
        MBPOFindClose(pos_);
        POReset(&po_);
        MBShutdown(session_);
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void makeOne() {
        static void (Calls::*const kCalls[])() = {&Calls::setOptions, &Calls::query,
                                                  &Calls::next,       &Calls::files,
                                                  &Calls::images,     &Calls::settings};
        (this->*kCalls[input_.below(std::size(kCalls))])();
        MUST(session_->callerWord == 4711 && session_->transport != nullptr);
    }

  private:
    static KSOption textOption(uint32_t code, const char* text) {
        KSOption option{code, {}};
        option.value.text = text;
        return option;
    }

    uint32_t reply(WSResult& result) {
        static const char kAnswer[] = "a|b\nt|t\n2\n1|x\n2|y\n";
        switch (input_.below(6)) {
            case 0:
                result.data = strdup(kAnswer);
                return 0;
            case 1:
                text_ = input_.text();
                result.data = strdup(text_.c_str());
                return 0;
            case 2:
                return 0;
            case 3:
                text_ = input_.text();
                result.eventCode = input_.byte() * 4U;
                result.severity = input_.below(2) != 0 ? text_.c_str() : nullptr;
                result.description = input_.below(2) != 0 ? text_.c_str() : nullptr;
                return 0;
            case 4:
                return WS_STATUS_FAILED + input_.below(10);
            default:
                return CR_STATUS_NO_MEMORY;
        }
    }

    void setOptions() {
        KSOption options[3] = {};
        std::string texts[std::size(options)];
        for (size_t i = 0; i < std::size(options); ++i) {
            texts[i] = std::string(input_.byte() * 5U, 'x') + input_.text();
            const bool isText = input_.below(4) != 0;
            options[i].code = isText ? 129 + input_.below(12) : input_.byte();
            if (isText) options[i].value.text = texts[i].c_str();
        }
        fuzz::setStatus = input_.below(4) == 1 ? 22 : 0;
        const MBSession before = *session_;
        if (MBOptionsSet(session_, options, input_.below(4)) != 0) {
            MUST(memcmp(&before, session_, sizeof before) == 0);
        }
        fuzz::setStatus = 0;
        MBAuthenticate(session_, texts[0].c_str(), texts[1].c_str());
    }

    void query() {
        MBPOFilter filter;
        filter.size = sizeof filter;
        MUST(MBPOFilterInit(&filter) == 0);
        const std::string name = input_.text();
        if (input_.below(2) != 0) filter.criterion10 = name.c_str();
        filter.criterion4 = input_.byte() - 128;
        filter.criterion12 = static_cast<signed char>(input_.byte());
        fuzz::archMode = input_.below(3) - 1;
        char* text = nullptr;
        size_t length = 0;
        switch (input_.below(3)) {
            case 0:
                MUST((MBPOFind(session_, 1, &filter, &text, &length, nullptr) == 0) ==
                     (text != nullptr));
                MUST(text == nullptr ? length == 0 : length == strlen(text) + 1);
                free(text);
                break;
            case 1:
                MBPOFindClose(strings_);
                strings_ = MBPOStringFindFirst(session_, 1, &filter, &line_, nullptr);
                break;
            default:
                MBPOFindClose(pos_);
                pos_ = MBPOFindFirst(session_, 1, &filter, &po_, nullptr);
        }
    }
    /// Cursors live beside each other, and past other calls of their session.
    void next() {
        if (MBPOStringFindNext(strings_, &line_) == 0) MUST(strlen(line_) < 300);
        if (MBPOFindNext(pos_, &po_) == 0) MUST(po_.text != nullptr && strchr(po_.text, '|'));
    }

    void files() {
        const std::string path = input_.text();
        char* listing = nullptr;
        size_t length = 0;
        uint32_t serverTime = 0;
        MBDirCreate(session_, path.c_str());
        MBFileCopy(session_, path.c_str(), "/x", input_.below(2));
        MBFileMove(session_, path.c_str(), nullptr, 0);
        MBFileDelete(session_, path.c_str(), 1);
        if (MBDirList(session_, path.c_str(), &listing, &length, 0) != 0) MUST(listing == nullptr);
        free(listing);
        MBGetTime(session_, &serverTime);
        MBPOAddList(session_, 1, path.c_str());
        MBPOExpire(session_, 1, nullptr);
    }

    void images() {
        const std::string name = input_.text();
        char *answer = nullptr, *policy = nullptr, *tag = nullptr;
        int32_t digit = 0;
        MBImageRetentionInfo info{};
        MBSetLastImageV2(session_, input_.below(2), name.c_str(), nullptr, -1, 1, name.c_str(), 0);
        MBSetLastImage(session_, 1, name.c_str(), "p", 1, nullptr, 0, 2, 0);
        if (MBGetLastImages(session_, 1, name.c_str(), "p", 0, 0, &answer) != 0) {
            MUST(answer == nullptr);
        }
        MBDeleteImage(session_, 1, name.c_str(), nullptr, "i", 0);
        MBSetImageRetention(session_, 1, name.c_str(), "p", "i", 0, 1, -1);
        MBGetImageRetention(session_, 1, name.c_str(), "p", "i", &info);
        if (MBFindImagePolicy(session_, 1, name.c_str(), "i", &policy) != 0) {
            MUST(policy == nullptr);
        }
        if (MBGetHVXTag(session_, 1, &digit, &tag) != 0) MUST(tag == nullptr);
        free(answer);
        free(policy);
        free(tag);
    }

    void settings() {
        MBKeepAlive(session_, input_.byte() - 1);
        MBEnableResiliency(session_, input_.byte() - 1);
        MBSetRetryCount(static_cast<int32_t>(input_.below(4)) - 1);
        MBSetTimeOut(input_.byte());
    }

    fuzz::Input& input_;
    std::string text_;
    MBSession* session_ = nullptr;
    MBPOCursor *strings_ = nullptr, *pos_ = nullptr;
    char* line_ = nullptr;
    PO po_{};
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    Calls calls(input);
    for (int i = 0; i < 60 && !input.isEmpty(); ++i)
        calls.makeOne();
    return 0;
}
