#include "core/lua/ZipLoader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filename.h>
#include <wx/log.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <lua.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace VeskCore {
namespace {

constexpr size_t kBlock = 16384;
// Far beyond any real module: a larger entry is a mistake or a decompression
// bomb, and is refused before any of it is inflated.
constexpr uint64_t kMaxModuleSize = uint64_t{16} << 20;

constexpr unsigned long kLocalSignature = 0x04034b50u;
constexpr unsigned long kCentralSignature = 0x02014b50u;
constexpr unsigned long kEndSignature = 0x06054b50u;
constexpr unsigned long kZip64EndSignature = 0x06064b50u;
constexpr unsigned long kZip64LocatorSignature = 0x07064b50u;
constexpr size_t kLocalSize = 30;
constexpr size_t kCentralSize = 46;
constexpr size_t kEndSize = 22;
constexpr size_t kZip64EndSize = 56;
constexpr size_t kZip64LocatorSize = 20;
constexpr unsigned kStored = 0;
constexpr unsigned kDeflated = 8;
constexpr unsigned kEncrypted = 1;             // general-purpose flag
constexpr unsigned long kDosDirectory = 0x10;  // external attribute

uint64_t Little(const unsigned char* bytes, int count) {
    uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = value << 8 | bytes[i];
    return value;
}

// All `size` bytes at `offset`; false at the file's end or on an error.
bool ReadAt(int fd, void* out, size_t size, uint64_t offset) {
    auto* bytes = static_cast<char*>(out);
    while (size > 0) {
        if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()))
            return false;
        const ssize_t got = pread(fd, bytes, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        bytes += got;
        size -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return true;
}

// What loading needs of an entry, as plain values: the index is shared by
// threads. All of it comes from the central directory, which is what a
// packer writes once it knows the sizes and CRC.
struct IndexedEntry {
    std::string name;     // the bytes the archive holds
    uint64_t offset = 0;  // of the local header, data in front of the archive counted
    uint64_t compressedSize = 0;
    uint64_t size = 0;
    uint32_t crc = 0;
    unsigned method = 0;
    unsigned flags = 0;
};

// A name that starts at the root, or has an empty, "." or ".." part, is no
// module's: unpackers disagree on where such an entry lands, and wx would
// quietly drop a leading "/" and make "/x.lua" the module x.
bool IsModuleName(const std::string& name) {
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        const size_t end = slash == std::string::npos ? name.size() : slash;
        const size_t length = end - start;
        if (length == 0 || name.compare(start, length, ".") == 0 ||
            name.compare(start, length, "..") == 0)
            return false;
        if (slash == std::string::npos)
            return true;
        start = slash + 1;
    }
}

// One entry's bytes straight from the archive file: its local header at the
// entry's offset, then the data, stored or deflated (inflated on the way).
// Reading through wx's streams costs a dozen seeks and stats per entry. The
// length and CRC are checked once the end is reached; any fault is kept as
// the text that names it, and from then on the entry reads as ended.
class EntryReader {
  public:
    EntryReader() = default;
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;
    ~EntryReader() {
        if (inflating)
            inflateEnd(&zip);
    }

    // False, with the fault kept, when the entry cannot be loaded.
    bool Open(int descriptor, uint64_t fileSize, const IndexedEntry& entry) {
        if (entry.flags & kEncrypted)
            return Fail("encrypted entry");
        if (entry.method != kStored && entry.method != kDeflated)
            return Fail("unsupported compression method " + std::to_string(entry.method));
        if (entry.size > kMaxModuleSize)
            return Fail("larger than the 16 MiB a module may have");
        fd = descriptor;
        // The local header must name the same entry: a wrong name length there
        // would move the start of the data.
        const size_t headerSize = kLocalSize + entry.name.size();
        std::string longHeader;
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(input);
        size_t got = 0;  // of the entry's own bytes, in `input`
        if (headerSize <= sizeof input && entry.offset <= fileSize) {
            // One read takes the header and, for a module of usual size, all of
            // its data.
            got = static_cast<size_t>(std::min<uint64_t>(sizeof input, fileSize - entry.offset));
            if (got < headerSize || !ReadAt(fd, input, got, entry.offset))
                return Fail("bad local header");
        } else {
            longHeader.assign(headerSize, '\0');
            if (!ReadAt(fd, &longHeader[0], headerSize, entry.offset))
                return Fail("bad local header");
            bytes = reinterpret_cast<const unsigned char*>(longHeader.data());
        }
        if (Little(bytes, 4) != kLocalSignature || Little(bytes + 8, 2) != entry.method ||
            Little(bytes + 26, 2) != entry.name.size() ||
            memcmp(bytes + kLocalSize, entry.name.data(), entry.name.size()) != 0)
            return Fail("bad local header");
        if (Little(bytes + 6, 2) & kEncrypted)
            return Fail("encrypted entry");
        const uint64_t dataAt = headerSize + Little(bytes + 28, 2);
        next = entry.offset + dataAt;
        if (next > fileSize || entry.compressedSize > fileSize - next)
            return Fail("entry runs past the end of the archive");
        end = next + entry.compressedSize;
        if (dataAt < got) {
            buffered = input + dataAt;
            bufferedLength =
                static_cast<size_t>(std::min<uint64_t>(got - dataAt, entry.compressedSize));
            next += bufferedLength;
        }
        declared = entry.size;
        crc = entry.crc;
        if (entry.method == kDeflated) {
            if (inflateInit2(&zip, -MAX_WBITS) != Z_OK)
                return Fail("out of memory");
            inflating = true;
        }
        return true;
    }

    // Up to `size` bytes of the entry; 0 at its end or on a fault.
    size_t Read(char* out, size_t size) {
        if (!fault.empty() || finished)
            return 0;
        // One byte past the declared length tells that the entry is longer,
        // without inflating the rest of a bomb.
        size = static_cast<size_t>(std::min<uint64_t>(size, declared - produced + 1));
        const size_t got = inflating ? Inflate(out, size) : Raw(out, size);
        produced += got;
        if (produced > declared)
            Fail("length differs from the central directory");
        if (!fault.empty())
            return 0;
        if (got == 0)
            finished = true;
        sum = crc32(sum, reinterpret_cast<const Bytef*>(out), static_cast<uInt>(got));
        return got;
    }

    // Reads what lua_load left (it stops where a chunk breaks, and a binary
    // chunk may end before the entry does), then checks the whole entry.
    // Empty when it is sound; else the fault.
    const std::string& Finish(char* scratch, size_t size) {
        while (Read(scratch, size) > 0) {
        }
        if (fault.empty() && produced != declared)
            Fail("length differs from the central directory");
        if (fault.empty() && sum != crc)
            Fail("CRC-32 mismatch");
        return fault;
    }

    const std::string& Fault() const { return fault; }

  private:
    bool Fail(const std::string& text) {
        if (fault.empty())
            fault = text;
        return false;
    }

    size_t Raw(char* out, size_t size) {
        if (bufferedLength > 0) {
            const size_t taken = std::min(size, bufferedLength);
            memcpy(out, buffered, taken);
            buffered += taken;
            bufferedLength -= taken;
            return taken;
        }
        if (next >= end)
            return 0;
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(size, end - next));
        ssize_t got;
        do
            got = pread(fd, out, wanted, static_cast<off_t>(next));
        while (got < 0 && errno == EINTR);
        if (got < 0)
            Fail(std::string("read error: ") + std::strerror(errno));
        else if (got == 0)
            Fail("archive cut short while reading");
        if (got <= 0)
            return 0;
        next += static_cast<uint64_t>(got);
        return static_cast<size_t>(got);
    }

    size_t Inflate(char* out, size_t size) {
        zip.next_out = reinterpret_cast<Bytef*>(out);
        zip.avail_out = static_cast<uInt>(size);
        while (zip.avail_out > 0 && !ended) {
            if (zip.avail_in == 0 && bufferedLength > 0) {
                zip.next_in = reinterpret_cast<Bytef*>(buffered);
                zip.avail_in = static_cast<uInt>(bufferedLength);
                bufferedLength = 0;
            } else if (zip.avail_in == 0) {
                const size_t got = Raw(input, sizeof input);
                if (got == 0) {
                    Fail("compressed data ends early");
                    break;
                }
                zip.next_in = reinterpret_cast<Bytef*>(input);
                zip.avail_in = static_cast<uInt>(got);
            }
            const int status = inflate(&zip, Z_NO_FLUSH);
            if (status == Z_STREAM_END) {
                ended = true;
            } else if (status != Z_OK) {
                Fail(status == Z_MEM_ERROR ? "out of memory" : "corrupt deflate data");
                break;
            }
        }
        return size - zip.avail_out;
    }

    int fd = -1;
    uint64_t next = 0;
    uint64_t end = 0;
    uint64_t declared = 0;
    uint64_t produced = 0;
    uint32_t crc = 0;
    uLong sum = crc32(0, Z_NULL, 0);
    z_stream zip{};
    bool inflating = false;
    bool ended = false;
    bool finished = false;
    std::string fault;
    char input[kBlock];
    char* buffered = nullptr;  // data the header's read took along, not yet used
    size_t bufferedLength = 0;
};

// What lua_load reads from.
struct StreamReaderState {
    char buffer[kBlock];
    EntryReader entry;
};

const char* StreamReader(lua_State*, void* data, size_t* size) {
    auto* reader = static_cast<StreamReaderState*>(data);
    *size = reader->entry.Read(reader->buffer, sizeof reader->buffer);
    return reader->buffer;
}

struct EntryNames {
    wxString file;  // a/b.lua
    wxString init;  // a/b/init.lua
    std::string utf8File;
    std::string utf8Init;
};

EntryNames EntryNamesOf(const char* module) {
    const wxString separator(wxFileName::GetPathSeparators()[0]);
    wxString base = wxString::FromUTF8(module);
    base.Replace(wxS("."), separator, true);
    EntryNames names{base + wxS(".lua"), base + separator + wxS("init.lua"), {}, {}};
    names.utf8File = names.file.utf8_string();
    names.utf8Init = names.init.utf8_string();
    return names;
}

// The bytes the file system gets for a path, as wx's own file calls convert
// it; ASCII, the usual case, needs no converter.
std::string FileNameBytes(const wxString& path) {
    std::string bytes;
    bytes.reserve(path.length());
    for (const wxUniChar c : path) {
        if (!c.IsAscii()) {
            const wxCharBuffer converted = path.fn_str();
            return converted.data() != nullptr ? std::string(converted.data()) : std::string();
        }
        bytes.push_back(static_cast<char>(c.GetValue()));
    }
    return bytes;
}

// The state of one search, all of it plain data by the time Lua may raise.
struct Search {
    std::string failures;  // the text for require, a line per archive
    std::string damage;    // the fault of the last broken module, when not Lua's
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

// Where the central directory lies, from the end record (and the zip64 end
// record, when a locator is in front of the end record).
struct Directory {
    uint64_t begin = 0;
    uint64_t end = 0;    // where the end records start
    uint64_t shift = 0;  // added to every entry's offset: data in front of the archive
};

bool FindDirectory(int fd, uint64_t fileSize, Directory& found) {
    // The end record closes the file, but for a comment of up to 64 KiB.
    const size_t tail = static_cast<size_t>(std::min<uint64_t>(fileSize, kEndSize + 0xFFFF));
    if (tail < kEndSize)
        return false;
    std::vector<unsigned char> bytes(tail);
    if (!ReadAt(fd, bytes.data(), tail, fileSize - tail))
        return false;
    // The last signature whose comment runs to the end of the file; failing
    // that, the last signature.
    size_t record = tail;
    for (size_t at = tail - kEndSize + 1; at-- > 0;) {
        if (Little(&bytes[at], 4) != kEndSignature)
            continue;
        if (record == tail)
            record = at;
        if (at + kEndSize + Little(&bytes[at + 20], 2) == tail) {
            record = at;
            break;
        }
    }
    if (record == tail)
        return false;
    uint64_t endAt = fileSize - tail + record;
    uint64_t size = Little(&bytes[record + 12], 4);
    uint64_t offset = Little(&bytes[record + 16], 4);
    unsigned char locator[kZip64LocatorSize];
    if (endAt >= kZip64LocatorSize &&
        ReadAt(fd, locator, sizeof locator, endAt - kZip64LocatorSize) &&
        Little(locator, 4) == kZip64LocatorSignature) {
        // Data in front of the archive moves the zip64 end record from where
        // the locator says; it is normally right in front of the locator.
        const uint64_t before = endAt - kZip64LocatorSize;
        const uint64_t last = before >= kZip64EndSize ? before - kZip64EndSize : 0;
        for (const uint64_t at : {Little(locator + 8, 8), last}) {
            unsigned char end64[kZip64EndSize];
            if (before >= kZip64EndSize && at <= last && ReadAt(fd, end64, sizeof end64, at) &&
                Little(end64, 4) == kZip64EndSignature) {
                endAt = at;
                size = Little(end64 + 40, 8);
                offset = Little(end64 + 48, 8);
                break;
            }
        }
    }
    if (size > endAt)
        return false;
    // The directory is where the end record says, or else it ends where the
    // end records start, and the difference is data in front of the archive.
    unsigned char signature[4];
    if (ReadAt(fd, signature, sizeof signature, offset) &&
        Little(signature, 4) == kCentralSignature) {
        found = {offset, endAt, 0};
    } else {
        // Wraps when the offset is too large: no local header is then found.
        found = {endAt - size, endAt, endAt - size - offset};
    }
    return true;
}

// The fields too wide for a central record sit in its zip64 extra field, in
// this order, each only when the record holds all ones in its place.
void Widen(const unsigned char* extra, size_t length, IndexedEntry& entry) {
    for (size_t at = 0; length - at >= 4;) {
        const size_t id = Little(extra + at, 2);
        const size_t size = Little(extra + at + 2, 2);
        at += 4;
        if (size > length - at)
            return;
        if (id == 1) {
            const unsigned char* field = extra + at;
            const unsigned char* const fieldEnd = field + size;
            for (uint64_t* value : {&entry.size, &entry.compressedSize, &entry.offset}) {
                if (*value != 0xFFFFFFFFu)
                    continue;
                if (fieldEnd - field < 8)
                    return;
                *value = Little(field, 8);
                field += 8;
            }
            return;
        }
        at += size;
    }
}

// A span of the file read front to back, a block at a time.
class Window {
  public:
    Window(int descriptor, uint64_t limit) : fd(descriptor), end(limit) {}

    // `size` bytes at `at`, valid until the next call; null past the span's
    // end or on a read error.
    const unsigned char* At(uint64_t at, size_t size) {
        if (at > end || end - at < size)
            return nullptr;
        if (at < start || at - start > bytes.size() || bytes.size() - (at - start) < size) {
            bytes.resize(static_cast<size_t>(std::min<uint64_t>(end - at, std::max(size, kSpan))));
            start = at;
            if (!ReadAt(fd, bytes.data(), bytes.size(), at)) {
                bytes.clear();
                return nullptr;
            }
        }
        return bytes.data() + (at - start);
    }

  private:
    static constexpr size_t kSpan = 65536;
    int fd;
    uint64_t end;
    uint64_t start = 0;
    std::vector<unsigned char> bytes;
};

// The first entry of each name in one archive, in archive order, and the
// archive open for reading, for as long as the path leads to the same file
// with the same size and times. Keeping it open spares each require an open
// and a close of the archive: the costliest part of finding a module there.
class ArchiveIndex {
  public:
    ArchiveIndex() = default;
    ArchiveIndex(const ArchiveIndex&) = delete;
    ArchiveIndex& operator=(const ArchiveIndex&) = delete;
    ~ArchiveIndex() {
        if (fd >= 0)
            close(fd);
    }

    // The index of the archive at `path`, which stat found to be `file`;
    // null when it cannot be opened.
    static std::shared_ptr<const ArchiveIndex> Of(const wxString& path, const std::string& bytes,
                                                  const struct stat& file);

    // The entry that comes first of the two names, or null.
    const IndexedEntry* FirstOf(const std::string& a, const std::string& b) const {
        const auto foundA = positions.find(a);
        const auto foundB = positions.find(b);
        size_t best = entries.size();
        if (foundA != positions.end())
            best = foundA->second;
        if (foundB != positions.end() && foundB->second < best)
            best = foundB->second;
        return best < entries.size() ? &entries[best] : nullptr;
    }

    uint64_t FileSize() const { return static_cast<uint64_t>(identity.st_size); }
    int Descriptor() const { return fd; }

  private:
    int fd = -1;
    struct stat identity {};
    std::unordered_map<std::string, size_t> positions;
    std::vector<IndexedEntry> entries;

    // The change time counts too: a file whose mode changed may no longer be
    // one this process could open.
    bool Describes(const struct stat& file) const {
        return identity.st_dev == file.st_dev && identity.st_ino == file.st_ino &&
               identity.st_size == file.st_size && identity.st_mtim.tv_sec == file.st_mtim.tv_sec &&
               identity.st_mtim.tv_nsec == file.st_mtim.tv_nsec &&
               identity.st_ctim.tv_sec == file.st_ctim.tv_sec &&
               identity.st_ctim.tv_nsec == file.st_ctim.tv_nsec;
    }

    // Walks the central directory once. wx's walk is not used: it rewrites
    // names ("/x.lua" becomes "x.lua") before they can be judged. A corrupt
    // archive reads as one without entries, or with those before the damage.
    void Read() {
        Directory directory;
        if (!FindDirectory(fd, FileSize(), directory))
            return;
        Window window(fd, directory.end);
        for (uint64_t at = directory.begin;;) {
            const unsigned char* record = window.At(at, kCentralSize);
            if (record == nullptr || Little(record, 4) != kCentralSignature)
                return;
            const size_t nameLength = Little(record + 28, 2);
            const size_t extraLength = Little(record + 30, 2);
            const size_t commentLength = Little(record + 32, 2);
            record = window.At(at, kCentralSize + nameLength + extraLength);
            if (record == nullptr)
                return;
            IndexedEntry entry;
            entry.name.assign(reinterpret_cast<const char*>(record + kCentralSize), nameLength);
            entry.flags = static_cast<unsigned>(Little(record + 8, 2));
            entry.method = static_cast<unsigned>(Little(record + 10, 2));
            entry.crc = static_cast<uint32_t>(Little(record + 16, 4));
            entry.compressedSize = Little(record + 20, 4);
            entry.size = Little(record + 24, 4);
            entry.offset = Little(record + 42, 4);
            Widen(record + kCentralSize + nameLength, extraLength, entry);
            entry.offset += directory.shift;
            const bool directoryEntry = (Little(record + 38, 4) & kDosDirectory) != 0;
            at += kCentralSize + nameLength + extraLength + commentLength;
            if (directoryEntry || !IsModuleName(entry.name) ||
                !positions.emplace(entry.name, entries.size()).second)
                continue;
            entries.push_back(std::move(entry));
        }
    }
};

std::mutex s_IndexGuard;
std::unordered_map<wxString, std::shared_ptr<const ArchiveIndex>, wxStringHash, wxStringEqual>
    s_Indexes;

std::shared_ptr<const ArchiveIndex> ArchiveIndex::Of(const wxString& path, const std::string& bytes,
                                                     const struct stat& file) {
    {
        std::lock_guard<std::mutex> lock(s_IndexGuard);
        const auto known = s_Indexes.find(path);
        if (known != s_Indexes.end() && known->second->Describes(file))
            return known->second;
    }
    auto index = std::make_shared<ArchiveIndex>();
    // Not blocking: the path may have become a FIFO since it was looked at.
    index->fd = open(bytes.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (index->fd < 0) {
        const int code = errno;  // reported as wx's own open reports it
        wxLogError(wxS("can't open file '%s' (error %d: %s)"), path, code, wxSysErrorMsgStr(code));
        return nullptr;
    }
    if (fstat(index->fd, &index->identity) != 0 || !S_ISREG(index->identity.st_mode))
        return nullptr;
    index->Read();
    std::lock_guard<std::mutex> lock(s_IndexGuard);
    s_Indexes[path] = index;
    return index;
}

// Compiles the entry; a damaged one counts as a module that does not compile.
// lua_load runs protected and only compiles: a chunk from bytes that fail
// their checks is dropped before anyone can run it.
void LoadEntry(lua_State* L, const ArchiveIndex& index, const IndexedEntry& entry,
               const std::string& chunkName, Search& search) {
    // A search keeps one value pushed at most: the last broken module's.
    if (search.loadStatus != LUA_OK && search.damage.empty())
        lua_pop(L, 1);
    search.damage.clear();
    // Not value-initialized: its buffers are written before they are read.
    std::unique_ptr<StreamReaderState> reader(new StreamReaderState);
    if (reader->entry.Open(index.Descriptor(), index.FileSize(), entry)) {
        search.loadStatus = lua_load(L, StreamReader, reader.get(), chunkName.c_str(), nullptr);
        if (reader->entry.Finish(reader->buffer, sizeof reader->buffer).empty())
            return;
        lua_pop(L, 1);  // the function or message made of damaged bytes
    }
    search.loadStatus = LUA_ERRFILE;
    search.damage = chunkName + ": " + reader->entry.Fault();
}

// Looks for the module in one archive; on a match, pushes (+1) the chunk or
// Lua's message, or records the entry's fault.
void SearchArchive(lua_State* L, const wxString& archive, const EntryNames& names, Search& search) {
    // What wxFile::Exists accepts: a path that leads, links followed, to a
    // regular file.
    struct stat file {};
    const std::string path = FileNameBytes(archive);
    if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) {
        AddFailure(search, wxString::Format(wxS("\n\tno file '%s'"), archive));
        return;
    }
    const std::shared_ptr<const ArchiveIndex> index = ArchiveIndex::Of(archive, path, file);
    if (index == nullptr) {
        if (search.loadStatus == LUA_OK) {
            AddFailure(search, wxString::Format(wxS("\n\terror opening file '%s'"), archive));
            search.stopped = true;
        }
        return;
    }
    const IndexedEntry* found = index->FirstOf(names.utf8File, names.utf8Init);
    if (found == nullptr) {
        AddFailure(search, NotInArchive(names, archive));
        return;
    }
    LoadEntry(L, *index, *found, archive.utf8_string() + ":" + found->name, search);
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
        else if (!search.damage.empty())
            lua_pushlstring(L, search.damage.data(), search.damage.size());
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
