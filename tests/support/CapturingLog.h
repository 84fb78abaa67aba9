// A wx log target for tests: records every line with its level, from any thread,
// and installs itself for the lifetime of the object.
#pragma once

#include <wx/log.h>
#include <wx/thread.h>

#include <mutex>
#include <string>
#include <vector>

namespace VeskTest {

struct LogLine {
    wxLogLevel level;
    std::string text;  // UTF-8
};

class CapturingLog : public wxLog {
  public:
    CapturingLog() : previous_(wxLog::SetActiveTarget(this)) {
        wxLog::DontCreateOnDemand();
        wxLog::EnableLogging(true);
        wxLog::SetLogLevel(wxLOG_Max);
        wxLog::SetVerbose(true);
        SetRepetitionCounting(false);
    }
    ~CapturingLog() override { wxLog::SetActiveTarget(previous_); }

    std::vector<LogLine> Lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // Lines of one level only, text only.
    std::vector<std::string> Texts(wxLogLevel level) const {
        std::vector<std::string> out;
        for (const LogLine& line : Lines())
            if (line.level == level)
                out.push_back(line.text);
        return out;
    }
    bool Contains(const std::string& fragment) const {
        for (const LogLine& line : Lines())
            if (line.text.find(fragment) != std::string::npos)
                return true;
        return false;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

  protected:
    void DoLogRecord(wxLogLevel level, const wxString& msg, const wxLogRecordInfo&) override {
        std::string text = msg.utf8_string();
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({level, std::move(text)});
    }

  private:
    wxLog* previous_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace VeskTest
