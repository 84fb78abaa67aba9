#include "core/xml/SqlConnection.h"

namespace VeskCore {
namespace {
thread_local wxSQLite3Database* s_Current = nullptr;
}  // namespace

SqlConnection::SqlConnection(wxSQLite3Database& db) : previous(s_Current) {
    s_Current = &db;
}

SqlConnection::~SqlConnection() {
    s_Current = previous;
}

wxSQLite3Database* SqlConnection::Current() {
    return s_Current;
}

}  // namespace VeskCore
