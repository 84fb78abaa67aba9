#include "core/lua/ZipLoader.h"

#include <wx/ffile.h>
#include <wx/file.h>
#include <wx/filename.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>

#include <lua.hpp>
#include <memory>
#include <string>

namespace VeskCore {
namespace {

// What lua_load reads from: the archive stream positioned at the entry.
struct StreamReaderState {
    char buffer[16384];
    wxInputStream* stream;
};

const char* StreamReader(lua_State*, void* data, size_t* size) {
    auto* reader = static_cast<StreamReaderState*>(data);
    reader->stream->Read(reader->buffer, sizeof reader->buffer);
    *size = reader->stream->LastRead();
    return reader->buffer;
}

struct EntryNames {
    wxString file;  // a/b.lua
    wxString init;  // a/b/init.lua
};

EntryNames EntryNamesOf(const char* module) {
    const wxString separator(wxFileName::GetPathSeparators()[0]);
    wxString base = wxString::FromUTF8(module);
    base.Replace(wxS("."), separator, true);
    return {base + wxS(".lua"), base + separator + wxS("init.lua")};
}

// The state of one search, all of it plain data by the time Lua may raise.
struct Search {
    std::string failures;  // the text for require, a line per archive
    int loadStatus = LUA_OK;
    bool loaded = false;
    bool stopped = false;  // an archive that exists could not be opened
};

void AddFailure(Search& search, const wxString& line) {
    if (search.loadStatus != LUA_OK)
        return;  // after a broken module, no more lines are gathered
    search.failures += line.utf8_string();
}

// Looks for the module in one archive; on a match, lua_load pushes (+1) the
// chunk or the error message.
void SearchArchive(lua_State* L, const wxString& archive, const EntryNames& names, Search& search) {
    if (!wxFile::Exists(archive)) {
        AddFailure(search, wxString::Format(wxS("\n\tno file '%s'"), archive));
        return;
    }
    wxFFileInputStream file(archive, wxS("rb"));
    if (!file.IsOk()) {
        if (search.loadStatus == LUA_OK) {
            AddFailure(search, wxString::Format(wxS("\n\terror opening file '%s'"), archive));
            search.stopped = true;
        }
        return;
    }
    wxZipInputStream zip(file, wxConvUTF8);
    for (std::unique_ptr<wxZipEntry> entry(zip.GetNextEntry()); entry;
         entry.reset(zip.GetNextEntry())) {
        if (entry->IsDir())
            continue;
        const wxString name = entry->GetName(wxPATH_NATIVE);
        if (name != names.file && name != names.init)
            continue;
        const std::string chunkName = (archive + wxS(":") + name).utf8_string();
        auto reader = std::make_unique<StreamReaderState>();
        reader->stream = &zip;
        // lua_load runs protected: it returns a status and never raises.
        search.loadStatus = lua_load(L, StreamReader, reader.get(), chunkName.c_str(), nullptr);
        search.loaded = search.loadStatus == LUA_OK;
        return;
    }
    AddFailure(search, wxString::Format(wxS("\n\tno '%s' or '%s' in file '%s'"), names.file,
                                        names.init, archive));
}

void SearchArchives(lua_State* L, const char* module, const char* list, Search& search) {
    const EntryNames names = EntryNamesOf(module);
    wxString remaining = wxString::FromUTF8(list);
    while (!remaining.empty() && !search.loaded && !search.stopped) {
        wxString rest;  // not `remaining` itself: BeforeFirst empties `rest` first
        const wxString archive = remaining.BeforeFirst(';', &rest);
        remaining = rest;
        SearchArchive(L, archive, names, search);
    }
}

// The searcher: argument 1 the module name, upvalue 1 the archive list.
int ZipLoader(lua_State* L) {
    const char* module = luaL_checklstring(L, 1, nullptr);
    const char* list = luaL_checklstring(L, lua_upvalueindex(1), nullptr);
    Search search;
    SearchArchives(L, module, list, search);
    if (search.loaded)
        return 1;
    if (search.loadStatus != LUA_OK)
        return lua_error(L);  // the message of the last broken module, on top
    lua_pushlstring(L, search.failures.data(), search.failures.size());
    return 1;
}

}  // namespace

int RegisterZipLoader(lua_State* L) {
    lua_getglobal(L, "package");        // +1
    lua_getfield(L, -1, "searchers");   // +2
    lua_getfield(L, -2, "zippath");     // +3
    lua_pushcclosure(L, ZipLoader, 1);  // +3: the searcher
    lua_rawseti(L, -2, static_cast<int>(lua_rawlen(L, -2)) + 1);
    lua_pop(L, 2);
    return 0;
}

}  // namespace VeskCore
