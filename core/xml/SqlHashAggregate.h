// An SQL aggregate that digests a column: hash(value, digestName) gives the
// raw digest (a blob) of the group's values in the order the query delivers
// them, each value's UTF-8 bytes without a terminator. The digest name is an
// OpenSSL name ("sha1" when absent). The host registers it under a name of
// its choice with wxSQLite3Database::CreateFunction.
#pragma once

#include <wx/wxsqlite3.h>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CSqlHashAggregate : public wxSQLite3AggregateFunction {
  public:
    void Aggregate(wxSQLite3FunctionContext& context) override;
    void Finalize(wxSQLite3FunctionContext& context) override;
};

}  // namespace VeskCore
