#include "core/common/Archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/dir.h>
#include <wx/wfstream.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "core/common/UnzipTarget.h"
#include "core/common/ZipHeaders.h"

namespace VeskCore {
namespace {

constexpr size_t kUnzipBlock = 256 * 1024;

bool ReadExactly(wxInputStream& in, wxFileOffset at, uint64_t size, std::string& bytes) {
    bytes.assign(size, '\0');
    return in.SeekI(at) == at && in.Read(&bytes[0], size).LastRead() == size;
}

// The central directory as stored, found from the end record; read where the
// end record says it ends, so data in front of the archive (a
// self-extracting stub) shifts nothing.
bool ReadCatalog(wxInputStream& in, std::vector<ZipCentralEntry>& entries) {
    const wxFileOffset length = in.GetLength();
    if (length <= 0)
        return false;
    const auto size = static_cast<uint64_t>(length);
    const uint64_t tailSize = std::min(size, kZipEndSearch);
    std::string tail;
    ZipEndRecord end;
    if (!ReadExactly(in, static_cast<wxFileOffset>(size - tailSize), tailSize, tail) ||
        !FindZipEndRecord(tail, end))
        return false;
    const uint64_t endAt = size - tailSize + end.position;
    std::string directory;
    return end.directorySize <= endAt && end.directorySize <= kZipMaxDirectory &&
           ReadExactly(in, static_cast<wxFileOffset>(endAt - end.directorySize), end.directorySize,
                       directory) &&
           ParseZipCentralDirectory(directory, end.entries, entries) && in.SeekI(0) == 0;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

struct UnzipRun {
    const std::vector<ZipCentralEntry>& catalog;
    wxZipInputStream& zip;
    CUnzipTarget& target;
    QXUnzipFilter filter;
    void* context;
    std::unique_ptr<char[]> block{new char[kUnzipBlock]};
    unsigned long long budget = kUnzipTotalLimit;  // bytes the archive may still inflate to
    size_t next = 0;                               // of the catalog
};

// wx finds the central directory on its own: unless each entry it gives is
// the one at the same place in the directory that was checked, the checks
// proved nothing (two end records can point at two directories).
bool MatchesCatalog(UnzipRun& run, const wxZipEntry& entry) {
    if (run.next >= run.catalog.size())
        return false;
    const ZipCentralEntry& stored = run.catalog[run.next++];
    return entry.GetInternalName().utf8_string() == ZipInternalName(stored.name) &&
           entry.GetSize() == static_cast<wxFileOffset>(stored.size) &&
           entry.GetCrc() == stored.crc;
}

// Copies the entry's data into `fd`, counting the bytes actually inflated: no
// more than the entry states, the entry limit and what is left of the budget.
// wx's CRC and length checks end the data with a read error.
bool CopyEntry(UnzipRun& run, const wxZipEntry& entry, int fd) {
    const wxFileOffset stated = entry.GetSize();
    unsigned long long limit = std::min(kUnzipEntryLimit, run.budget);
    if (stated >= 0)
        limit = std::min(limit, static_cast<unsigned long long>(stated));
    unsigned long long copied = 0;
    size_t got = 0;
    do {
        got = run.zip.Read(run.block.get(), kUnzipBlock).LastRead();
        if (got > limit - copied || !WriteAll(fd, run.block.get(), got))
            return false;
        copied += got;
    } while (run.zip.IsOk() && got > 0);
    run.budget -= copied;
    return run.zip.GetLastError() == wxSTREAM_EOF &&
           (stated < 0 || copied == static_cast<unsigned long long>(stated));
}

// `entry` matches the checked catalog: its name is contained and no link.
bool UnzipEntry(UnzipRun& run, wxZipEntry& entry) {
    const std::string name = entry.GetName(wxPATH_UNIX).utf8_string();
    CUnzipSlot slot;
    const bool placed = run.target.Place(name, slot);
    if (placed && slot.IsFileOfSize(entry.GetSize()))
        return true;
    if (!run.filter(run.context, &entry))
        return false;
    if (placed && slot.Create(0666)) {
        if (!CopyEntry(run, entry, slot.File()))
            return false;
        if (entry.IsMadeByUnix() && entry.GetMode() != 0)
            fchmod(slot.File(), static_cast<mode_t>(entry.GetMode() & 0777));
    }
    if (placed)
        slot.SetModified(entry.GetDateTime().GetTicks());
    return slot.CloseFile();
}

bool UnzipEntries(UnzipRun& run) {
    wxZipEntryPtr entry;
    for (;;) {
        entry.reset(run.zip.GetNextEntry());
        if (!entry) {
            const wxStreamError error = run.zip.GetLastError();
            return (error == wxSTREAM_NO_ERROR || error == wxSTREAM_EOF) &&
                   run.next == run.catalog.size();
        }
        if (!MatchesCatalog(run, *entry.get()) ||
            (!entry->IsDir() && !UnzipEntry(run, *entry.get())))
            return false;
    }
}

struct FileId {
    dev_t device;
    ino_t inode;
};

bool Identify(const wxString& path, FileId& id) {
    struct stat info {};
    if (stat(path.utf8_string().c_str(), &info) != 0)
        return false;
    id = {info.st_dev, info.st_ino};
    return true;
}

// Whether the directory base + name is `base` itself or one of the
// directories between: a link back up would otherwise recurse without end.
bool IsOnItsOwnPath(const wxString& base, const wxString& name) {
    FileId self{}, other{};
    if (!Identify(base + name, self))
        return false;
    auto same = [&](const wxString& path) {
        return Identify(path, other) && other.device == self.device && other.inode == self.inode;
    };
    if (same(base))
        return true;
    for (size_t slash = name.find(wxFILE_SEP_PATH); slash != wxString::npos;
         slash = name.find(wxFILE_SEP_PATH, slash + 1))
        if (slash > 0 && same(base + name.substr(0, slash)))
            return true;
    return false;
}

}  // namespace

bool Unzip(const wxFileName& archive, const wxFileName& destination, QXUnzipFilter filter,
           void* context) {
    const wxString path = destination.GetPath(wxPATH_GET_VOLUME);
    if (filter == nullptr || path.empty())
        return false;
    wxFFileInputStream file(archive.GetFullPath(), wxS("rb"));
    std::vector<ZipCentralEntry> catalog;
    if (!file.IsOk() || !ReadCatalog(file, catalog) ||
        !IsUnpackableCatalog(catalog, kUnzipEntryLimit, kUnzipTotalLimit))
        return false;
    wxZipInputStream zip(file, wxConvUTF8);
    if (zip.GetLastError() != wxSTREAM_NO_ERROR || !filter(context, nullptr))
        return false;
    // wx reports a seek error for an archive without entries.
    if (catalog.empty())
        return true;
    CUnzipTarget target(path);
    UnzipRun run{catalog, zip, target, filter, context};
    return UnzipEntries(run);
}

bool Zip(const wxFileName& archive, const wxFileName& source, QXZipFilter filter, void* context) {
    if (filter == nullptr)
        return false;
    wxFFileOutputStream file(archive.GetFullPath(), wxS("w+b"));
    if (!file.IsOk())
        return false;
    wxZipOutputStream zip(file, -1, wxConvUTF8);
    if (zip.GetLastError() != wxSTREAM_NO_ERROR)
        return false;
    return ZipIt(zip, source.GetPath(wxPATH_GET_VOLUME | wxPATH_GET_SEPARATOR),
                 source.GetFullName(), filter, context);
}

bool ZipIt(wxZipOutputStream& zip, const wxString& base, const wxString& name, QXZipFilter filter,
           void* context) {
    const QXZipAction action = filter(context, &name);
    if (action != QXZipInclude)
        return action == QXZipSkip;
    struct stat info {};
    if (stat((base + name).utf8_string().c_str(), &info) != 0)
        return false;
    if (S_ISDIR(info.st_mode))
        return ZipDirectory(zip, base, name, filter, context);
    if (S_ISREG(info.st_mode))
        return ZipFile(zip, base, name, filter, context);
    return false;
}

bool ZipDirectory(wxZipOutputStream& zip, const wxString& base, const wxString& name,
                  QXZipFilter filter, void* context) {
    if (IsOnItsOwnPath(base, name))
        return false;
    wxDir dir(base + name);
    if (!dir.IsOpened())
        return false;
    if (!dir.HasFiles() && !dir.HasSubDirs())
        return true;
    wxString entry;
    if (!dir.GetFirst(&entry, wxEmptyString, wxDIR_FILES | wxDIR_DIRS | wxDIR_HIDDEN))
        return false;
    const wxString prefix = name.EndsWith(wxFILE_SEP_PATH) ? name : name + wxFILE_SEP_PATH;
    do {
        if (!ZipIt(zip, base, prefix + entry, filter, context))
            return false;
    } while (dir.GetNext(&entry));
    return zip.IsOk();
}

bool ZipFile(wxZipOutputStream& zip, const wxString& base, const wxString& name, QXZipFilter filter,
             void* context) {
    // Opened first and then looked at: what was a file when listed may be a
    // FIFO now, and a FIFO's plain open would wait for a writer.
    const int fd =
        open((base + name).utf8_string().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return false;
    wxFileInputStream in(fd);  // owns fd from here
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || !in.IsOk())
        return false;
    auto* entry = new wxZipEntry(name, wxDateTime(info.st_mtime), wxInvalidOffset);
    entry->SetSystemMadeBy(wxZIP_SYSTEM_UNIX);
    entry->SetMode(static_cast<int>(info.st_mode));
    if (!zip.PutNextEntry(entry))  // takes the entry
        return false;
    char buffer[8192];
    for (;;) {
        if (!in.IsOk())
            return zip.IsOk();
        if (!zip.IsOk())
            return false;
        const size_t got = in.Read(buffer, sizeof buffer).LastRead();
        if (got > 0)
            zip.Write(buffer, got);
        if (filter(context, nullptr) != QXZipInclude)
            return false;
    }
}

}  // namespace VeskCore
