#include "core/lua/ZipLoader.h"

#include <sys/stat.h>
#include <unistd.h>
#include <wx/ffile.h>
#include <wx/file.h>
#include <wx/filename.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>
#include <zlib.h>

#include <algorithm>
#include <lua.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace VeskCore {
namespace {

constexpr size_t kBlock = 16384;

// What loading needs of an entry, as plain values: the index is shared by
// threads, and wx's entries share counted parts that are not thread-safe.
struct IndexedEntry {
    wxString name;            // in the native form
    wxFileOffset offset = 0;  // of the local header
    wxFileOffset compressedSize = 0;
    int method = 0;
};

// One entry's bytes straight from the archive file: its local header at the
// entry's offset, then the data, stored or deflated (inflated on the way).
// Reading through wx's streams costs a dozen seeks and stats per entry.
class EntryReader {
  public:
    EntryReader() = default;
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;
    ~EntryReader() {
        if (inflating)
            inflateEnd(&zip);
    }

    // False when the entry is of another kind, or its header doesn't check out.
    bool Open(int descriptor, const IndexedEntry& entry) {
        if (entry.method != wxZIP_METHOD_STORE && entry.method != wxZIP_METHOD_DEFLATE)
            return false;
        unsigned char header[30];
        if (pread(descriptor, header, sizeof header, entry.offset) != sizeof header ||
            Little(header, 4) != 0x04034b50u)
            return false;
        fd = descriptor;
        next = entry.offset + sizeof header + Little(header + 26, 2) + Little(header + 28, 2);
        end = next + entry.compressedSize;
        if (entry.method == wxZIP_METHOD_DEFLATE) {
            if (inflateInit2(&zip, -MAX_WBITS) != Z_OK)
                return false;
            inflating = true;
        }
        return true;
    }

    // Up to `size` bytes of the entry; 0 at its end or on an error.
    size_t Read(char* out, size_t size) {
        if (!inflating)
            return Raw(out, size);
        zip.next_out = reinterpret_cast<Bytef*>(out);
        zip.avail_out = static_cast<uInt>(size);
        while (zip.avail_out > 0 && !ended) {
            if (zip.avail_in == 0) {
                const size_t got = Raw(input, sizeof input);
                if (got == 0)
                    break;
                zip.next_in = reinterpret_cast<Bytef*>(input);
                zip.avail_in = static_cast<uInt>(got);
            }
            const int status = inflate(&zip, Z_NO_FLUSH);
            if (status == Z_STREAM_END)
                ended = true;
            else if (status != Z_OK)
                break;
        }
        return size - zip.avail_out;
    }

  private:
    static unsigned long Little(const unsigned char* bytes, int count) {
        unsigned long value = 0;
        for (int i = count - 1; i >= 0; --i)
            value = value << 8 | bytes[i];
        return value;
    }

    size_t Raw(char* out, size_t size) {
        if (next >= end)
            return 0;
        const size_t wanted = std::min<wxFileOffset>(size, end - next);
        const ssize_t got = pread(fd, out, wanted, next);
        if (got <= 0)
            return 0;
        next += got;
        return static_cast<size_t>(got);
    }

    int fd = -1;
    wxFileOffset next = 0;
    wxFileOffset end = 0;
    z_stream zip{};
    bool inflating = false;
    bool ended = false;
    char input[kBlock];
};

// What lua_load reads from: the entry, directly or through wx's zip stream.
struct StreamReaderState {
    char buffer[kBlock];
    EntryReader* entry = nullptr;
    wxInputStream* stream = nullptr;
};

const char* StreamReader(lua_State*, void* data, size_t* size) {
    auto* reader = static_cast<StreamReaderState*>(data);
    if (reader->entry != nullptr) {
        *size = reader->entry->Read(reader->buffer, sizeof reader->buffer);
    } else {
        reader->stream->Read(reader->buffer, sizeof reader->buffer);
        *size = reader->stream->LastRead();
    }
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

wxString NotInArchive(const EntryNames& names, const wxString& archive) {
    return wxString::Format(wxS("\n\tno '%s' or '%s' in file '%s'"), names.file, names.init,
                            archive);
}

void AddFailure(Search& search, const wxString& line) {
    if (search.loadStatus != LUA_OK)
        return;  // after a broken module, no more lines are gathered
    search.failures += line.utf8_string();
}

// The first entry of each name in one archive, in archive order, for as long
// as the file stays the same file with the same size and time.
class ArchiveIndex {
  public:
    static std::shared_ptr<const ArchiveIndex> Of(const wxString& path, wxFFileInputStream& file);

    // The entry that comes first of the two names, or null.
    const IndexedEntry* FirstOf(const wxString& a, const wxString& b) const {
        const auto foundA = positions.find(a);
        const auto foundB = positions.find(b);
        size_t best = entries.size();
        if (foundA != positions.end())
            best = foundA->second;
        if (foundB != positions.end() && foundB->second < best)
            best = foundB->second;
        return best < entries.size() ? &entries[best] : nullptr;
    }

  private:
    struct stat identity {};
    std::unordered_map<wxString, size_t, wxStringHash, wxStringEqual> positions;
    std::vector<IndexedEntry> entries;

    bool Describes(const struct stat& file) const {
        return identity.st_dev == file.st_dev && identity.st_ino == file.st_ino &&
               identity.st_size == file.st_size && identity.st_mtim.tv_sec == file.st_mtim.tv_sec &&
               identity.st_mtim.tv_nsec == file.st_mtim.tv_nsec;
    }

    // Walks every entry once; a corrupt archive reads as one without entries.
    void Read(wxInputStream& file) {
        wxZipInputStream zip(file, wxConvUTF8);
        for (std::unique_ptr<wxZipEntry> entry(zip.GetNextEntry()); entry;
             entry.reset(zip.GetNextEntry())) {
            if (entry->IsDir())
                continue;
            const wxString name = entry->GetName(wxPATH_NATIVE);
            if (positions.emplace(name, entries.size()).second)
                entries.push_back(
                    {name, entry->GetOffset(), entry->GetCompressedSize(), entry->GetMethod()});
        }
    }
};

std::mutex s_IndexGuard;
std::unordered_map<wxString, std::shared_ptr<const ArchiveIndex>, wxStringHash, wxStringEqual>
    s_Indexes;

std::shared_ptr<const ArchiveIndex> ArchiveIndex::Of(const wxString& path,
                                                     wxFFileInputStream& file) {
    struct stat identity {};
    if (fstat(fileno(file.GetFile()->fp()), &identity) != 0)
        return nullptr;
    {
        std::lock_guard<std::mutex> lock(s_IndexGuard);
        const auto known = s_Indexes.find(path);
        if (known != s_Indexes.end() && known->second->Describes(identity))
            return known->second;
    }
    auto index = std::make_shared<ArchiveIndex>();
    index->identity = identity;
    index->Read(file);
    std::lock_guard<std::mutex> lock(s_IndexGuard);
    s_Indexes[path] = index;
    return index;
}

// An entry the direct reader doesn't take (another method, data in front of
// the archive): wx's zip stream walks to it. False when it is gone.
// lua_load runs protected: it returns a status and never raises.
bool LoadThroughWx(lua_State* L, wxFFileInputStream& file, const wxString& name,
                   const std::string& chunkName, StreamReaderState& reader, Search& search) {
    file.SeekI(0);
    wxZipInputStream zip(file, wxConvUTF8);
    for (std::unique_ptr<wxZipEntry> entry(zip.GetNextEntry()); entry;
         entry.reset(zip.GetNextEntry())) {
        if (entry->IsDir() || entry->GetName(wxPATH_NATIVE) != name)
            continue;
        reader.stream = &zip;
        search.loadStatus = lua_load(L, StreamReader, &reader, chunkName.c_str(), nullptr);
        return true;
    }
    return false;
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
    const std::shared_ptr<const ArchiveIndex> index = ArchiveIndex::Of(archive, file);
    const IndexedEntry* found = index ? index->FirstOf(names.file, names.init) : nullptr;
    if (found == nullptr) {
        AddFailure(search, NotInArchive(names, archive));
        return;
    }
    const std::string chunkName = (archive + wxS(":") + found->name).utf8_string();
    auto reader = std::make_unique<StreamReaderState>();
    EntryReader direct;
    if (direct.Open(fileno(file.GetFile()->fp()), *found)) {
        reader->entry = &direct;
        search.loadStatus = lua_load(L, StreamReader, reader.get(), chunkName.c_str(), nullptr);
    } else if (!LoadThroughWx(L, file, found->name, chunkName, *reader, search)) {
        AddFailure(search, NotInArchive(names, archive));
        return;
    }
    search.loaded = search.loadStatus == LUA_OK;
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
    bool raise = false;
    {
        Search search;
        SearchArchives(L, module, list, search);
        if (search.loaded)
            return 1;
        raise = search.loadStatus != LUA_OK;
        if (!raise)
            lua_pushlstring(L, search.failures.data(), search.failures.size());
    }
    // Raised once the search and its text are gone: lua_error never returns.
    if (raise)
        return lua_error(L);  // the message of the last broken module, on top
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
