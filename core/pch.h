// Precompiled for every layer of the library: wx and OpenSSL headers dominate
// the compile time of each translation unit.
#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <wx/buffer.h>
#include <wx/hashmap.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/sstream.h>
#include <wx/stream.h>
#include <wx/string.h>
#include <wx/thread.h>

#include <lua.hpp>
#include <string>
#include <vector>
