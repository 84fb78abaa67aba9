// The database a record's statement runs on, for the one thing a statement
// can't tell: the row id an insert made. The database forms of SQLInsert make
// their connection known for as long as they run; a caller that prepares its
// own insert statement for records whose keys are null does the same.
#pragma once

#include "core/common/Export.h"

class wxSQLite3Database;

namespace VeskCore {

class VESK_EXPORT SqlConnection {
  public:
    explicit SqlConnection(wxSQLite3Database& db);
    ~SqlConnection();
    SqlConnection(const SqlConnection&) = delete;
    SqlConnection& operator=(const SqlConnection&) = delete;

    // The innermost connection made known on this thread, or null.
    static wxSQLite3Database* Current();

  private:
    wxSQLite3Database* previous;
};

}  // namespace VeskCore
