// The agent's log target: one line per record on standard error.
//
// Under systemd (JOURNAL_STREAM set) each line starts with its journald
// priority ("<3>" error, "<4>" warning, "<6>" info, "<7>" debug), every line
// of a multi-line record too, and carries no timestamp, since the journal
// keeps its own. Otherwise a line is
// "YYYY-MM-DD HH:MM:SS.mmm Level: text".
//
// Thread-safe: library threads log to it directly.
#pragma once

#include <wx/log.h>

#include <mutex>
#include <string>

class CStderrLog : public wxLog {
  public:
    explicit CStderrLog(bool journal);

    // The line as it is written, without the newline.
    std::string FormatLine(wxLogLevel level, const wxString& text) const;

  protected:
    void DoLogRecord(wxLogLevel level, const wxString& msg, const wxLogRecordInfo& info) override;

  private:
    bool journal;
    std::mutex writeMutex;
};
