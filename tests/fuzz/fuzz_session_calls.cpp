// Any sequence of calls of a session, with any outcome of its requests. A call that fails leaves
// the session as it was, and hands out no text.
#include <cstring>
#include <iterator>

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/fuzz_replies.h"

namespace {

class Calls : public operations::Objects {
  public:
    explicit Calls(fuzz::Input& input) : input_(input) {
        fuzz::onCall = [this](const std::string& call) { return reply(call); };
        MBSetRetryCount(2);
        MBSetTimeOut(0);
        operations::run(*this, "MBCreateWithAgentCfg 4711 138=http://127.0.0.1:1 1 /dev/null");
    }
    ~Calls() override {
        MBPOFindClose(other_);
        operations::run(*this, "MBShutdown");  // which still gets its replies from here
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void makeOne() {
        const auto& rows = operations::client();
        const auto row = std::next(rows.begin(), input_.below(static_cast<uint32_t>(rows.size())));
        // Files of any name are not for a fuzzer to read.
        for (const char* other : {"KSConfigInit", "MBCreate", "MBInit", "MBShutdown"})
            if (row->first.compare(0, strlen(other), other) == 0) return;
        // Cursors live beside each other, and past other calls of their session.
        if (input_.below(8) == 0) std::swap(cursor, other_);
        const operations::Words words = wordsFor(row->first, row->second.kinds);
        setting_ = input_.below(4) == 1;
        row->second.run(*this, words);
        MUST(status == 0 || (!changed && !gaveText));
        MUST(session != nullptr && session->callerWord == 4711 && session->transport != nullptr);
    }

  private:
    operations::Words wordsFor(const std::string& name, const std::string& kinds) {
        operations::Words words(name);
        size_t options = 0;
        if (name == "filter") {
            filter.criterion4 = input_.byte() - 128;
            words.insert(words.end(),
                         {"all", "10==" + input_.text(), "12=" + input_.bytes(1) + "x"});
        }
        for (const char kind : kinds) {
            const bool isNull = input_.below(8) == 7;
            if (kind == 't') {
                words.push_back(isNull ? "null" : "=" + input_.text());
            } else if (kind == 'p') {
                options = input_.below(4);
                words.push_back(optionsOf(options));
            } else if (kind == 'n' && options > 0) {
                words.push_back(std::to_string(std::exchange(options, 0)));
            } else if (kind == 'n') {
                words.push_back(std::to_string(static_cast<int>(input_.byte() % 6) - 1));
            } else {
                words.push_back(isNull ? "null" : ".");
            }
        }
        return words;
    }

    std::string optionsOf(size_t count) {
        std::string out;
        for (size_t i = 0; i < count; ++i) {
            const uint32_t code = 127 + input_.below(26);
            const std::string times = std::to_string(input_.byte() * 5U);
            out +=
                std::to_string(code) + "=" + (operations::isText(code) ? "x*" : "") + times + ",";
        }
        return out.empty() ? "null" : out;
    }

    scripted::Reply reply(const std::string& call) {
        scripted::Reply reply;
        if (call == "WSArchMode") reply.status = fuzz::modeWithSlot(input_.below(3) - 1);
        if (call == "WSSetOpt" || call == "WSSetOptVa") reply.status = setting_ ? 22 : 0;
        if (call.compare(0, 9, "WSRequest") != 0) return reply;
        switch (input_.below(6)) {
            case 0:
                reply.data = "a|b\nt|t\n2\n1|x\n2|y\n";
                break;
            case 1:
                reply.data = input_.text();
                break;
            case 2:
                break;
            case 3:
                reply.eventCode = input_.byte() * 4U;
                if (input_.below(2) != 0) reply.severity = input_.text();
                if (input_.below(2) != 0) reply.description = input_.text();
                break;
            case 4:
                reply.status = WS_STATUS_FAILED + input_.below(10);
                break;
            default:
                reply.status = CR_STATUS_NO_MEMORY;
        }
        return reply;
    }

    fuzz::Input& input_;
    MBPOCursor* other_ = nullptr;
    bool setting_ = false;  ///< whether options are refused by the transport
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
