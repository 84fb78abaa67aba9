// Arbitrary bytes as a zip archive, unpacked by Unzip into a folder two
// levels down in a scratch directory of the fuzzer's own.
//
// Besides crashes and sanitizer reports, it checks what hardening promises:
// afterwards nothing exists in the scratch directory but the archive, the
// two folders above the destination and what lies inside the destination,
// and there is no link anywhere.
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/common/Archive.h"

namespace {

std::string s_scratch;      // <tmp>/vesk-fuzz-unzip-XXXXXX
std::string s_destination;  // s_scratch + "/a/b/dest"

bool AcceptAll(void*, const wxZipEntry*) {
    return true;
}

int Check(const char* path, const struct stat* info, int, FTW*) {
    const std::string name(path);
    const bool expected = name == s_scratch || name == s_scratch + "/archive.zip" ||
                          name == s_scratch + "/a" || name == s_scratch + "/a/b" ||
                          name.compare(0, s_destination.size(), s_destination) == 0;
    if (!expected || S_ISLNK(info->st_mode)) {
        fprintf(stderr, "unexpected %s: %s\n", S_ISLNK(info->st_mode) ? "link" : "path", path);
        abort();
    }
    return 0;
}

int Remove(const char* path, const struct stat*, int, FTW*) {
    return remove(path);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::EnableLogging(false);  // wx reports every broken stream
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/vesk-fuzz-unzip-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr)
        abort();
    s_scratch = pattern;
    s_destination = s_scratch + "/a/b/dest";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string archive = s_scratch + "/archive.zip";
    FILE* file = fopen(archive.c_str(), "wb");
    if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0)
        abort();
    VeskCore::Unzip(wxFileName(wxString::FromUTF8(archive)),
                    wxFileName::DirName(wxString::FromUTF8(s_destination)), AcceptAll, nullptr);
    nftw(s_scratch.c_str(), Check, 16, FTW_PHYS);
    nftw((s_scratch + "/a").c_str(), Remove, 16, FTW_PHYS | FTW_DEPTH);
    return 0;
}
