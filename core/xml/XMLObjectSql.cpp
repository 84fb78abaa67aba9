// Records to and from SQL: statements built from the attribute table, values
// moved through wxSQLite3. The table of a record is its element name with an
// "s" added; a list loads from the table of its own (plural) element name.
#include <openssl/crypto.h>
#include <wx/arrstr.h>
#include <wx/log.h>
#include <wx/wxsqlite3.h>

#include <cstdlib>

#include "core/common/Overloaded.h"
#include "core/common/Scrub.h"
#include "core/common/SecureString.h"
#include "core/runtime/LogTrace.h"
#include "core/xml/SqlConnection.h"
#include "core/xml/XMLObject.h"
#include "core/xml/XMLObjectList.h"

namespace VeskCore {
namespace {

constexpr const char* kTrace = "SQL";

wxString TablePrefix(const char* databaseName) {
    return databaseName != nullptr ? wxString::FromUTF8(databaseName) + wxS(".") : wxString();
}

[[noreturn]] void ThrowSql(const char* text) {
    throw wxSQLite3Exception(-1, wxString::FromUTF8(text));
}

// Cuts the last character, whatever it is: the trailing separator of a list,
// or, for a record without attributes, the text before it.
void CutLast(wxString& text) {
    if (!text.empty())
        text.RemoveLast();
}

void BindSecret(wxSQLite3Statement& statement, int position, const wxSecureString& secret) {
    char* plain = nullptr;
    size_t length = 0;
    secret.getContentsUtf8(plain, length, false);
    if (plain == nullptr) {
        statement.BindNull(position);
        return;
    }
    // As bytes: a wxString would keep a converted copy that no wipe reaches.
    statement.Bind(position, static_cast<const char*>(plain));
    OPENSSL_cleanse(plain, length);
    free(plain);
}

// Binds text as the wrapper's own Bind of a wxString does (UTF-8, up to the
// first NUL), without its conversion and buffer for the usual short ASCII.
void BindText(wxSQLite3Statement& statement, int position, const wxString& text) {
    char bytes[256];
    const size_t length = text.length();
    if (length < sizeof bytes) {
        // Narrowed whole and judged after: a loop without an early exit
        // runs many characters at a time.
        const wxStringCharType* characters = text.wx_str();
        wxUint32 seen = 0;
        for (size_t i = 0; i < length; ++i) {
            seen |= static_cast<wxUint32>(characters[i]);
            bytes[i] = static_cast<char>(characters[i]);
        }
        if (seen < 0x80) {
            bytes[length] = '\0';
            statement.Bind(position, static_cast<const char*>(bytes));
            return;
        }
    }
    statement.Bind(position, text);
}

// False for an attribute of a type that has no binding (logged).
bool BindValue(wxSQLite3Statement& statement, int position, const wxString& name,
               const XMLAttribute& attribute, const char* operation) {
    if (attribute.m_isNull) {
        statement.BindNull(position);
        return true;
    }
    return attribute.Visit(Overloaded{
        [&](const wxMemoryBuffer& buffer) {
            if (buffer.GetDataLen() == 0)
                statement.BindNull(position);
            else
                statement.Bind(position, buffer);
            return true;
        },
        [&](const bool& flag) {
            statement.BindBool(position, flag);
            return true;
        },
        [&](const int& number) {
            statement.Bind(position, number);
            return true;
        },
        [&](const long long& number) {
            statement.Bind(position, wxLongLong(number));
            return true;
        },
        [&](const wxString& text) {
            BindText(statement, position, text);
            return true;
        },
        [&](const wxSecureString& secret) {
            BindSecret(statement, position, secret);
            return true;
        },
        [&](const wxArrayString& values) {
            BindText(statement, position, XMLObject::Print(values, attribute.m_default.text));
            return true;
        },
        [&](UnknownAttributeType unknown) {
            wxLogError(wxS("%s - unknown type '%d' for attribute '%.64s'"),
                       wxString::FromUTF8(operation), unknown.code, name);
            return false;
        }});
}

// Binds a key at `position`; false for a key type that can't be one.
bool BindKey(wxSQLite3Statement& statement, int position, const XMLAttribute& key) {
    return key.Visit(Overloaded{[&](const int& number) {
                                    statement.Bind(position, number);
                                    return true;
                                },
                                [&](const long long& number) {
                                    statement.Bind(position, wxLongLong(number));
                                    return true;
                                },
                                [](const auto&) { return false; }});
}

void TraceExecuting(wxSQLite3Statement& statement) {
    if (LogTraceIsEnabled(kTrace))
        LogTrace(kTrace, "Executing: %s", statement.GetSQL().utf8_string().c_str());
}

void StoreRowId(const wxString& name, XMLAttribute& key) {
    wxSQLite3Database* db = SqlConnection::Current();
    if (db == nullptr) {
        wxLogError(wxS("SQLInsert() - no database to read the row id of '%.64s' from"), name);
        return;
    }
    const long long rowId = db->GetLastRowId().GetValue();
    LogTrace(kTrace, "Rowid: %lld", rowId);
    key.Visit(Overloaded{
        [&](int& number) { number = static_cast<int>(rowId); },
        [&](long long& number) { number = rowId; },
        [&](auto&&) {
            wxLogError(wxS("SQLInsert() - unsupported primary key type '%d' for attribute '%.64s'"),
                       static_cast<int>(key.m_type), name);
        }});
}

}  // namespace

const XMLAttribute* XMLObject::PrimaryKey(bool last, wxString* name) const {
    const XMLAttribute* key = nullptr;
    for (const auto& entry : m_attributes) {
        if (!entry.second.m_isPrimaryKey)
            continue;
        key = &entry.second;
        if (name != nullptr)
            *name = entry.first;
        if (!last)
            break;
    }
    return key;
}

wxString XMLObject::GetSQLLoadStatement(const char* databaseName) const {
    wxString key;
    if (PrimaryKey(false, &key) == nullptr)
        ThrowSql("GetSQLLoadStatement() require a primary key");
    return wxS("SELECT * FROM ") + TablePrefix(databaseName) + wxS("[") + GetElementName() +
           wxS("s] WHERE ") + key + wxS("=?;");
}

wxString XMLObject::GetSQLInsertStatement(const char* databaseName) const {
    wxString columns;
    wxString places;
    for (const auto& entry : m_attributes) {
        columns << entry.first << wxS(",");
        places << wxS("?,");
    }
    wxString text = wxS("INSERT INTO ") + TablePrefix(databaseName) + wxS("[") + GetElementName() +
                    wxS("s] (") + columns;
    CutLast(text);
    text << wxS(") VALUES (") << places;
    CutLast(text);
    return text + wxS(");");
}

wxString XMLObject::GetSQLUpdateStatement(const char* databaseName) const {
    wxString key;
    if (PrimaryKey(true, &key) == nullptr)
        ThrowSql("Updates require a primary key");
    wxString text =
        wxS("UPDATE ") + TablePrefix(databaseName) + wxS("[") + GetElementName() + wxS("s] SET ");
    for (const auto& entry : m_attributes)
        if (!entry.second.m_isPrimaryKey)
            text << entry.first << wxS("=?,");
    CutLast(text);
    return text + wxS(" WHERE [") + key + wxS("]=?;");
}

wxString XMLObject::GetSQLDeleteStatement(const char* databaseName) const {
    wxString key;
    if (PrimaryKey(false, &key) == nullptr)
        ThrowSql("Deletes require a primary key");
    return wxS("DELETE FROM ") + TablePrefix(databaseName) + wxS("[") + GetElementName() +
           wxS("s] WHERE ") + key + wxS("=?;");
}

int XMLObject::SQLInsert(wxSQLite3Database& db, const char* databaseName) {
    SqlConnection connection(db);
    wxSQLite3Statement statement = db.PrepareStatement(GetSQLInsertStatement(databaseName));
    return SQLInsert(statement);
}

int XMLObject::SQLInsert(wxSQLite3Statement& statement) {
    // Every parameter is bound afresh, those no attribute fills to NULL: the
    // state clearing the bindings first would give, without the cost of
    // clearing for each record of a bulk insert.
    int position = 1;
    bool keyBoundNull = false;
    for (const auto& entry : m_attributes) {
        keyBoundNull |= entry.second.m_isNull && entry.second.m_isPrimaryKey;
        if (!BindValue(statement, position, entry.first, entry.second, "SQLInsert()"))
            statement.BindNull(position);
        ++position;
    }
    for (const int count = statement.GetParamCount(); position <= count; ++position)
        statement.BindNull(position);
    TraceExecuting(statement);
    const int rows = statement.ExecuteUpdate();
    if (keyBoundNull) {
        // The key stays marked null: inserting the object again takes a new row.
        for (const auto entry : m_attributes)
            if (entry.second.m_isPrimaryKey) {
                StoreRowId(entry.first, entry.second);
                break;
            }
    }
    return rows;
}

int XMLObject::SQLUpdate(wxSQLite3Database& db, const char* databaseName) const {
    wxSQLite3Statement statement = db.PrepareStatement(GetSQLUpdateStatement(databaseName));
    return SQLUpdate(statement);
}

int XMLObject::SQLUpdate(wxSQLite3Statement& statement) const {
    statement.ClearBindings();
    int position = 1;
    const XMLAttribute* key = nullptr;
    for (const auto& entry : m_attributes) {
        if (entry.second.m_isPrimaryKey) {
            key = &entry.second;  // the last one met
            continue;
        }
        BindValue(statement, position++, entry.first, entry.second, "SQLUpdate()");
    }
    if (key == nullptr)
        ThrowSql("Updates require a primary key");
    if (!BindKey(statement, position, *key))
        wxLogError(wxS("SQLUpdate() - unsupported primary key type '%d'"),
                   static_cast<int>(key->m_type));
    TraceExecuting(statement);
    const int rows = statement.ExecuteUpdate();
    LogTrace(kTrace, "Updated %d rows", rows);
    return rows;
}

int XMLObject::SQLDelete(wxSQLite3Database& db, const char* databaseName) const {
    wxSQLite3Statement statement = db.PrepareStatement(GetSQLDeleteStatement(databaseName));
    return SQLDelete(statement);
}

int XMLObject::SQLDelete(wxSQLite3Statement& statement) const {
    statement.ClearBindings();
    const XMLAttribute* key = PrimaryKey(false, nullptr);
    if (key != nullptr && !BindKey(statement, 1, *key)) {
        wxLogError(wxS("SQLDelete() - unsupported primary key type '%d'"),
                   static_cast<int>(key->m_type));
        return 0;
    }
    TraceExecuting(statement);
    return statement.ExecuteUpdate();
}

bool XMLObject::SQLLoad(wxSQLite3Database& db, const char* databaseName) {
    wxSQLite3Statement statement = db.PrepareStatement(GetSQLLoadStatement(databaseName));
    const XMLAttribute* key = PrimaryKey(false, nullptr);
    if (key == nullptr)
        ThrowSql("SQLLoad() require a primary key");
    if (!BindKey(statement, 1, *key)) {
        wxLogError(wxS("SQLLoad() - unsupported primary key type '%d'"),
                   static_cast<int>(key->m_type));
        ThrowSql("SQLLoad() unsupported primary key type");
    }
    // The wrapper's query leaves the first row current; no match reads as
    // NULL everywhere, which leaves the defaults.
    wxSQLite3ResultSet results = statement.ExecuteQuery();
    return SQLLoad(results);
}

namespace {

// Reads the column `name` into the attribute's member; false for a type that
// has no column.
bool LoadColumn(wxSQLite3ResultSet& results, const wxString& name, XMLAttribute& attribute) {
    return attribute.Visit(Overloaded{
        [&](wxMemoryBuffer& buffer) {
            buffer.SetDataLen(0);
            results.GetBlob(name, buffer);
            return true;
        },
        [&](bool& flag) {
            flag = results.GetBool(name);
            return true;
        },
        [&](int& number) {
            number = results.GetInt(name, attribute.m_hasDefault ? attribute.m_default.integer : 0);
            return true;
        },
        [&](long long& number) {
            number =
                results.GetInt64(name, attribute.m_hasDefault ? attribute.m_default.integer64 : 0)
                    .GetValue();
            return true;
        },
        [&](wxString& text) {
            text = results.GetString(name, attribute.m_hasDefault && attribute.m_default.text
                                               ? wxString::FromUTF8(attribute.m_default.text)
                                               : wxString());
            return true;
        },
        [&](wxSecureString& secret) {
            // The column's bytes, not its text: every conversion would leave
            // a copy of the secret behind.
            int length = 0;
            const unsigned char* bytes = results.GetBlob(name, length);
            std::string plain(reinterpret_cast<const char*>(bytes), bytes ? length : 0);
            secret.assign(plain.c_str());
            Scrub(plain);
            return true;
        },
        [&](wxArrayString& values) {
            XMLObject::Parse(results.GetString(name, wxEmptyString), values,
                             attribute.m_default.text);
            return true;
        },
        [&](UnknownAttributeType unknown) {
            wxLogError(wxS("FromSQL() - unknown type '%d' for attribute '%.64s'"), unknown.code,
                       name);
            return false;
        }});
}

}  // namespace

bool XMLObject::SQLLoad(wxSQLite3ResultSet& results) {
    SetToDefaults();
    if (LogTraceIsEnabled(kTrace))
        LogTrace(kTrace, "Loading from: %s", results.GetSQL().utf8_string().c_str());
    for (const auto entry : m_attributes) {
        const wxString& name = entry.first;
        XMLAttribute& attribute = entry.second;
        if (results.IsNull(name))
            continue;
        if (!LoadColumn(results, name, attribute))
            return false;
        attribute.m_wasParsed = true;
        attribute.m_isNull = false;
    }
    return EndAttributes() && EndElement();
}

bool XMLObjectList::SQLLoad(wxSQLite3Database& db) {
    SetToDefaults();
    wxSQLite3ResultSet results =
        db.ExecuteQuery(wxString::Format(wxS("select * from [%s];"), GetElementName()));
    return SQLLoad(results);
}

bool XMLObjectList::SQLLoad(wxSQLite3ResultSet& results) {
    while (results.NextRow()) {
        // Unlike in XML, too many rows fail the load.
        if (m_maxChildren != 0 && m_children.GetCount() >= m_maxChildren) {
            wxLogError(wxS("XMLObjectList::SQLLoad() - Too many child elements encountered."));
            return false;
        }
        XMLObject* child = CreateListElement();
        m_children.Append(child);
        if (!child->SQLLoad(results))
            return false;
    }
    return true;
}

int XMLObjectList::SQLInsert(wxSQLite3Database& db) {
    if (m_children.empty())
        return 0;
    SqlConnection connection(db);
    wxSQLite3Statement statement =
        db.PrepareStatement(m_children.front()->GetSQLInsertStatement(nullptr));
    return SQLInsert(statement);
}

int XMLObjectList::SQLUpdate(wxSQLite3Database& db) const {
    if (m_children.empty())
        return 0;
    wxSQLite3Statement statement =
        db.PrepareStatement(m_children.front()->GetSQLUpdateStatement(nullptr));
    return SQLUpdate(statement);
}

int XMLObjectList::SQLDelete(wxSQLite3Database& db) const {
    if (m_children.empty())
        return 0;
    wxSQLite3Statement statement =
        db.PrepareStatement(m_children.front()->GetSQLDeleteStatement(nullptr));
    return SQLDelete(statement);
}

int XMLObjectList::SQLInsert(wxSQLite3Statement& statement) {
    int rows = 0;
    for (XMLObject* child : m_children)
        rows += child->SQLInsert(statement);
    return rows;
}

int XMLObjectList::SQLUpdate(wxSQLite3Statement& statement) const {
    int rows = 0;
    for (XMLObject* child : m_children)
        rows += child->SQLUpdate(statement);
    return rows;
}

int XMLObjectList::SQLDelete(wxSQLite3Statement& statement) const {
    int rows = 0;
    for (XMLObject* child : m_children)
        rows += child->SQLDelete(statement);
    return rows;
}

}  // namespace VeskCore
