// Reading records from XML through Expat: the parser's user data is the
// record of the innermost open element, and events go straight into its
// attribute table.
#include <openssl/crypto.h>
#include <wx/arrstr.h>
#include <wx/log.h>
#include <wx/sstream.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/common/Base64.h"
#include "core/common/Guid.h"
#include "core/common/Scrub.h"
#include "core/common/SecureString.h"
#include "core/common/StringUtil.h"
#include "core/common/Utf8.h"
#include "core/runtime/LogTrace.h"
#include "core/xml/XMLMemory.h"
#include "core/xml/XMLObject.h"
#include "core/xml/XMLText.h"

namespace VeskCore {

void* XML_Malloc(size_t size) {
    return OPENSSL_malloc(size);
}

void* XML_Realloc(void* block, size_t size) {
    return OPENSSL_realloc(block, size);
}

void XML_Free(void* block) {
    OPENSSL_free(block);
}

const XML_Memory_Handling_Suite XML_MemoryHandlers = {XML_Malloc, XML_Realloc, XML_Free};

namespace {

constexpr int kChunk = 16 * 1024;

// The scratch strings of reading (see ScratchText).
struct ElementNameScratch;
struct AttributeNameScratch;
struct AttributeValueScratch;

// The text around the error on one line, columns kept: line ends become
// blanks and tabs full stops.
void LogContext(const char* context, int size) {
    std::string line(context, static_cast<size_t>(size));
    for (char& c : line) {
        if (c == '\n' || c == '\r')
            c = ' ';
        else if (c == '\t')
            c = '.';
    }
    wxLogError(wxS("%s"), FromUTF8Lenient(line.data(), line.size()));
}

void ReportParseFailure(XML_Parser parser, const char* chunk, int length) {
    const XML_Error code = XML_GetErrorCode(parser);
    const XML_LChar* message = XML_ErrorString(code);
    wxLogError(wxS("XML_ParseBuffer() failed.  Error code is %d (%s). Buffer contained the "
                   "following XML text:"),
               static_cast<int>(code), wxString::FromUTF8(message != nullptr ? message : ""));
    int offset = 0;
    int size = 0;
    const char* context = XML_GetInputContext(parser, &offset, &size);
    if (context != nullptr) {
        LogContext(context, size);
        wxLogError(wxS(" %*s-- ** error location **"), offset, wxS("^"));
    } else {
        wxLogError(wxS("%s"), FromUTF8Lenient(chunk, static_cast<size_t>(std::max(length, 0))));
    }
}

// value.CmpNoCase(lowercase) == 0, without building a string of the
// literal for every value read.
bool EqualsNoCase(const wxString& value, const char* lowercase) {
    const size_t length = strlen(lowercase);
    if (value.length() != length)
        return false;
    const wxStringCharType* characters = value.wx_str();
    for (size_t i = 0; i < length; ++i)
        if (static_cast<wxUint32>(wxTolower(characters[i])) !=
            static_cast<unsigned char>(lowercase[i]))
            return false;
    return true;
}

// What strtoll makes of text: an optional minus, then the digits up to the
// first other character, clamped to the range of long long.
struct Digits {
    long long value = 0;
    bool any = false;      // at least one digit
    bool whole = false;    // the digits reach the end of the text
    bool clamped = false;  // out of range
};

Digits ReadDigits(const wxString& text) {
    const wxStringCharType* c = text.wx_str();
    const wxStringCharType* const end = c + text.length();
    const bool negative = c != end && *c == '-';
    if (negative)
        ++c;
    const unsigned long long limit =
        negative ? 0ULL - static_cast<unsigned long long>(LLONG_MIN) : LLONG_MAX;
    unsigned long long magnitude = 0;
    Digits digits;
    for (; c != end && *c >= '0' && *c <= '9'; ++c) {
        const unsigned digit = static_cast<unsigned>(*c - '0');
        digits.any = true;
        if (magnitude > (limit - digit) / 10)
            digits.clamped = true;
        else
            magnitude = magnitude * 10 + digit;
    }
    if (!digits.any)
        return digits;
    digits.whole = c == end;
    if (digits.clamped)
        magnitude = limit;
    digits.value =
        negative ? static_cast<long long>(0ULL - magnitude) : static_cast<long long>(magnitude);
    return digits;
}

// Placeholders made on this thread, by any parse: one made by a parse
// nested in a handler's work makes the outer one look too, which is harmless.
unsigned long long& PlaceholdersMade() {
    thread_local unsigned long long made = 0;
    return made;
}

bool OnlyDigitsAndMinus(const wxString& value) {
    for (const wxUniChar c : value)
        if (!(c >= '0' && c <= '9') && c != '-')
            return false;
    return true;
}

}  // namespace

int XMLObject::FromXML(const wxString& text, const char* namespaceSeparator) {
    wxStringInputStream stream(text);
    return FromXML(stream, namespaceSeparator);
}

int XMLObject::FromXML(wxInputStream& stream, const char* namespaceSeparator) {
    SetToDefaults();  // before anything can fail
    const unsigned long long placeholdersBefore = PlaceholdersMade();
    XML_Parser parser = XML_ParserCreate_MM(nullptr, &XML_MemoryHandlers, namespaceSeparator);
    if (parser == nullptr) {
        wxLogError(wxS("XML_ParserCreate() failed."));
        return XML_ERROR_NO_MEMORY;
    }
    XML_SetUserData(parser, this);
    XML_UseParserAsHandlerArg(parser);
    XML_SetElementHandler(parser, XML_StartElementHandler, XML_EndElementHandler);
    XML_SetCharacterDataHandler(parser, XML_CharacterDataHandler);
    int result = XML_ERROR_NONE;
    for (;;) {
        if (stream.Eof())
            break;
        void* buffer = XML_GetBuffer(parser, kChunk);
        if (buffer == nullptr) {
            wxLogError(wxS("XML_GetBuffer() failed."));
            result = XML_ERROR_NO_MEMORY;
            break;
        }
        stream.Read(buffer, kChunk);  // straight into the parser's buffer
        // A stream that fails ends the document there: Expat tells whether it
        // was complete.
        const bool failed = stream.GetLastError() == wxSTREAM_READ_ERROR;
        const bool isFinal = stream.Eof() || failed;
        const int n = static_cast<int>(stream.LastRead());
        if (n == 0 && !failed)
            continue;
        if (XML_ParseBuffer(parser, n, isFinal) != XML_STATUS_OK) {
            ReportParseFailure(parser, static_cast<const char*>(buffer), n);
            result = XML_GetErrorCode(parser);
            break;
        }
        if (failed)
            break;
    }
    XML_ParserFree(parser);
    // Unknown elements hang their placeholders on whichever record was
    // current, children included: all of them go now. A document without
    // unknown elements leaves none, and a large tree is not walked for them.
    if (PlaceholdersMade() != placeholdersBefore)
        DestroyPlaceholders();
    return result;
}

// Runs a handler's work; an exception (memory running out) must not cross
// Expat's C frames, so it stops the parse instead.
template <class Work>
void XMLObject::Guarded(void* parser, Work work) {
    auto* record = static_cast<XMLObject*>(XML_GetUserData(static_cast<XML_Parser>(parser)));
    if (record == nullptr)
        return;
    try {
        work(*record, static_cast<XML_Parser>(parser));
    } catch (const std::exception& error) {
        record->XML_ParseError(static_cast<XML_Parser>(parser), "Aborting parsing: %s",
                               error.what());
    }
}

void XMLObject::XML_StartElementHandler(void* parser, const char* name, const char** attributes) {
    Guarded(parser, [&](XMLObject& record, XML_Parser expat) {
        ScratchText<ElementNameScratch> text;
        AssignUTF8(*text, name);
        record.StartElementHandler(*text, attributes, expat);
    });
}

// No record hook takes the name of a closing element: it stays in UTF-8.
void XMLObject::XML_EndElementHandler(void* parser, const char* name) {
    Guarded(parser,
            [&](XMLObject& record, XML_Parser expat) { record.EndElementHandler(name, expat); });
}

void XMLObject::XML_CharacterDataHandler(void* parser, const char* text, int length) {
    // Most records keep no text: the blanks between their elements are not
    // worth converting.
    Guarded(parser, [&](XMLObject& record, XML_Parser) {
        if (record.m_collectsText)
            record.CharacterDataHandler(TextFromUTF8(text, static_cast<size_t>(length)));
    });
}

void XMLObject::DestroyPlaceholders() {
    for (XMLObject* child : m_children)
        child->DestroyPlaceholders();
    DestroyTempObjects();
}

void XMLObject::SetParent(XMLObject* parent, XML_ParserStruct* parser) {
    m_parent = parent;
    XML_SetUserData(parser, this);
}

void XMLObject::StartElementHandler(const wxString& name, const char** attributes,
                                    XML_ParserStruct* parser) {
    if (LogTraceIsEnabled("XML"))
        LogTrace("XML", "Parsing XML Element <%.64s>", name.utf8_string().c_str());
    XMLObject* target;
    if (!m_elementSeen) {
        // The root of the parse: it stays current.
        target = ElementNameMatches(name);
        if (target != nullptr)
            m_elementSeen = true;
    } else {
        target = FindChildElement(name);
        if (target != nullptr)
            target->SetParent(this, parser);
    }
    if (target == nullptr) {
        // An element nobody knows: its subtree lands on placeholders.
        auto* placeholder = new XMLObject(false, true);
        ++PlaceholdersMade();
        m_tempObjects.Append(placeholder);
        placeholder->SetParent(this, parser);
        placeholder->m_elementSeen = true;
        return;
    }
    target->m_elementSeen = true;
    if (!target->SetAttributes(attributes))
        XML_ParseError(parser,
                       "Aborting parsing of element <%s> due to attribute errors at XML source "
                       "line %lld, column %lld, byte %lld",
                       name.utf8_string().c_str(),
                       static_cast<long long>(XML_GetCurrentLineNumber(parser)),
                       static_cast<long long>(XML_GetCurrentColumnNumber(parser)),
                       static_cast<long long>(XML_GetCurrentByteIndex(parser)));
}

bool XMLObject::SetAttributes(const char** attributes) {
    ScratchText<AttributeNameScratch> nameText;
    ScratchText<AttributeValueScratch> valueText;
    wxString& name = *nameText;
    wxString& value = *valueText;
    bool applied = true;
    for (size_t i = 0; applied && attributes != nullptr && attributes[i] != nullptr; i += 2) {
        const char* rawName = attributes[i];
        if (m_strict && !islower(static_cast<unsigned char>(rawName[0]))) {
            wxLogError(wxS("Attribute '%.64s' of element '%s' does not begin with a lowercase "
                           "letter."),
                       wxString::FromUTF8(rawName), GetElementName());
            applied = false;
            break;
        }
        AssignUTF8(name, rawName);
        AssignUTF8(value, attributes[i + 1]);
        applied = SetAttribute(name, value);
    }
    return applied && EndAttributes();
}

void XMLObject::EndElementHandler(const char* name, XML_ParserStruct* parser) {
    LogTrace("XML", "Finished XML Element </%.64s>", name);
    if (EndElement())
        XML_SetUserData(parser, m_parent);
    else
        XML_ParseError(parser, "Aborting parsing at XML source line %lld, column %lld, byte %lld",
                       static_cast<long long>(XML_GetCurrentLineNumber(parser)),
                       static_cast<long long>(XML_GetCurrentColumnNumber(parser)),
                       static_cast<long long>(XML_GetCurrentByteIndex(parser)));
}

void XMLObject::CharacterDataHandler(const wxString& text) {
    if (m_collectsText)
        m_text += text;
}

void XMLObject::XML_ParseError(XML_ParserStruct* parser, const char* format, ...) const {
    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    wxLogError(wxS("%s"), FromUTF8Lenient(message, strlen(message)));
    XML_SetElementHandler(parser, nullptr, nullptr);
    XML_SetCharacterDataHandler(parser, nullptr);
    XML_StopParser(parser, XML_FALSE);
}

XMLObject* XMLObject::ElementNameMatches(const wxString& name) {
    const wxString own = GetElementName();
    const bool equal = m_strict ? own.Cmp(name) == 0 : own.CmpNoCase(name) == 0;
    return equal ? this : nullptr;
}

XMLObject* XMLObject::FindChildElement(const wxString& name) {
    if (IsCollection()) {
        if (XMLObject* match = ElementNameMatches(name))
            return match;
    } else {
        for (XMLObject* child : m_children)
            if (XMLObject* match = child->ElementNameMatches(name))
                return match;
    }
    OnUnhandledChildElement(name);
    return nullptr;
}

void XMLObject::OnUnhandledChildElement(const wxString& name) {
    if (LogTraceIsEnabled("XML"))
        LogTrace("XML", "Child element <%.64s> being ignored by element <%.64s>",
                 name.utf8_string().c_str(), GetElementName().utf8_string().c_str());
}

void XMLObject::OnUnhandledAttribute(const wxString& name, const wxString& value) {
    if (LogTraceIsEnabled("XML"))
        LogTrace("XML", "Attribute %.64s=\"%.64s\" being ignored by element <%.64s>",
                 name.utf8_string().c_str(), value.utf8_string().c_str(),
                 GetElementName().utf8_string().c_str());
}

bool XMLObject::Parse(const wxString& value, wxString& out) {
    out = value;
    return true;
}

bool XMLObject::Parse(const wxString& value, wxSecureString& out) {
    std::string bytes;
    EncodeUTF8(value, bytes);
    out.assign(bytes.c_str());
    Scrub(bytes);
    return true;
}

bool XMLObject::Parse(const wxString& value, bool& out) {
    if (EqualsNoCase(value, "true")) {
        out = true;
        return true;
    }
    if (EqualsNoCase(value, "false")) {
        out = false;
        return true;
    }
    int number = 0;
    if (!Parse(value, number))
        return false;
    out = number != 0;
    return true;
}

bool XMLObject::Parse(const wxString& value, int& out) {
    if (value.empty()) {
        out = 0;
        return true;
    }
    if (!OnlyDigitsAndMinus(value)) {
        wxLogError(wxS("Parse() - Bad integer value: %.64s"), value);
        return false;
    }
    // As wxString::ToLong reads it: every character used, nothing clamped.
    const Digits number = ReadDigits(value);
    if (!number.any || !number.whole || number.clamped)
        return false;
    out = static_cast<int>(number.value);
    return true;
}

bool XMLObject::Parse(const wxString& value, long long& out) {
    if (value.empty()) {
        out = 0;
        return true;
    }
    if (!OnlyDigitsAndMinus(value)) {
        wxLogError(wxS("Parse() - Bad int64 value: %.64s"), value);
        return false;
    }
    out = ReadDigits(value).value;  // as atoll reads it
    return true;
}

bool XMLObject::Parse(const wxString& value, wxMemoryBuffer& out) {
    std::string bytes = fromBase64String(value);
    out.SetDataLen(0);
    out.AppendData(bytes.data(), bytes.size());
    Scrub(bytes);
    return true;
}

bool XMLObject::Parse(const wxString& value, wxArrayString& out, const char* separator) {
    out.Clear();
    Tokenize(out, value, separator != nullptr ? separator : ",");
    return true;
}

bool XMLObject::Parse(const wxString& value, _GUID& out) {
    return VeskCore::Parse(value, &out);
}

}  // namespace VeskCore
