// Records handed to scripts: the tables that toLua builds, inspected by Lua itself.
#include <gtest/gtest.h>

#include <lua.hpp>
#include <string>

#include "core/common/SecureString.h"
#include "core/xml/Interfaces.h"

using namespace VeskCore;

namespace {

// One attribute of every kind, with and without defaults.
class Sample : public XMLObject {
  public:
    Sample() : XMLObject(false, true) {
        AddAttribute("plainFlag", &plainFlag);
        AddAttribute("onFlag", &onFlag, true);
        AddAttribute("count", &count);
        AddAttribute("delta", &delta, 0, false);
        AddAttribute("big", &big);
        AddAttribute("note", &note, nullptr);
        AddAttribute("label", &label, "");
        AddAttribute("city", &city, "x");
        AddAttribute("secret", &secret);
        AddAttribute("blank", &blank);
        AddAttribute("raw", &raw);
        AddAttribute("one", &one, nullptr);
        AddAttribute("pair", &pair, nullptr);
        AddAttribute("hollow", &hollow, nullptr);
        AddAttribute("gr\303\266\303\237e", &size);
    }
    wxString GetElementName() const override { return wxS("Sample"); }

    bool plainFlag = false, onFlag = true;
    int count = 0, delta = -42, size = 3;
    long long big = 1234567890123456789LL;
    wxString note, label, city = wxString::FromUTF8("Z\xC3\xBCrich \xE2\x82\xAC");
    wxSecureString secret, blank;
    wxMemoryBuffer raw;
    wxArrayString one, pair, hollow;
};

// Character data (no record class here keeps any), then two member children.
class Note : public XMLObject {
  public:
    explicit Note(const char* text) : XMLObject(true, true) {
        m_text = wxString::FromUTF8(text);
        AddChild(&first);
        AddChild(&second);
    }
    wxString GetElementName() const override { return wxS("Note"); }
    CIP first, second;
};

class LuaRecordTest : public testing::Test {
  protected:
    LuaRecordTest() : L(luaL_newstate()) { luaL_openlibs(L); }
    ~LuaRecordTest() override { lua_close(L); }

    // Runs `chunk` with the record's table as `rec`: "" when it ran, else its error.
    std::string Check(const XMLObject& record, const std::string& chunk) {
        const int top = lua_gettop(L);
        EXPECT_EQ(record.toLua(L), 1);
        EXPECT_EQ(lua_gettop(L), top + 1);
        lua_setglobal(L, "rec");
        const std::string code =
            "local function count(t) local n = 0 for k in pairs(t) do"
            " if type(k) == 'string' then n = n + 1 end end return n end " +
            chunk;
        std::string error;
        if (luaL_loadbuffer(L, code.data(), code.size(), "=check") != LUA_OK ||
            lua_pcall(L, 0, 0, 0) != LUA_OK)
            error = lua_tostring(L, -1);
        lua_settop(L, top);
        return error;
    }

    lua_State* const L;
};

TEST_F(LuaRecordTest, InterfaceTreeArrivesAsTaggedTables) {
    CInterfaces interfaces;
    auto* nic = new CInterface;
    interfaces.AddChild(nic);
    nic->id = 7;
    nic->name = wxS("eth0");
    nic->dhcp = true;
    nic->typeId = 6;
    nic->SetMACBinary("\x00\x1A\x2B\x3C\x4D\x5E", 6);
    for (const char* address : {"10.0.0.5", "192.168.1.9"}) {
        nic->ips.AddChild(new CIP);
        static_cast<CIP*>(nic->ips.Children().back())->ipAddress = wxString::FromUTF8(address);
    }
    // attr lists its names in the order of the attribute table.
    std::string table;
    nic->EnumAttributes(
        [](const XMLObject*, const char* name, _PrimitiveType, const void*, void* out) {
            *static_cast<std::string*>(out) += std::string(name) + " ";
            return true;
        },
        &table);
    lua_pushstring(L, table.c_str());
    lua_setglobal(L, "table_order");
    EXPECT_EQ(Check(interfaces, R"(
        assert(rec.tag == 'Interfaces' and next(rec.attr) == nil and #rec == 1, 'list')
        local nic = rec[1]
        assert(nic.tag == 'Interface' and #nic == 1, 'interface')
        local want = {id = '7', name = 'eth0', dhcp = 'true', typeId = '6',
                      mac = '00:1A:2B:3C:4D:5E'}
        local order = {}
        for name in table_order:gmatch('%S+') do
            assert(nic.attr[name] == want[name], name .. ' = ' .. tostring(nic.attr[name]))
            order[#order + 1] = want[name] and name or nil
        end
        assert(count(nic.attr) == 5 and table.concat(nic.attr, ' ') == table.concat(order, ' '),
               table.concat(nic.attr, ' '))
        local ips = nic[1]
        assert(ips.tag == 'IPs' and next(ips.attr) == nil and #ips == 2, 'addresses')
        local a = ips[2].attr
        assert(ips[1].tag == 'IP' and ips[1].attr.ipAddress == '10.0.0.5' and #a == 1
               and a[1] == 'ipAddress' and a.ipAddress == '192.168.1.9' and count(a) == 1))"),
              "");
}

TEST_F(LuaRecordTest, EveryValueArrivesAsTextUnlessItIsTheDefault) {
    Sample sample;  // nothing marked: only defaults decide what is left out
    sample.secret.assign("s3cret");
    sample.raw.AppendData(
        "\0\xFF"
        "A",
        3);
    sample.one.Add(wxS("only"));
    sample.pair.Add(wxS("a"));
    sample.pair.Add(wxS("b"));
    sample.hollow.Add(wxString());
    EXPECT_EQ(Check(sample, R"(
        local a = rec.attr
        local want = {plainFlag = 'false', count = '0', delta = '-42',
                      big = '1.2345678901235e+18', note = '',
                      city = 'Z\195\188rich \226\130\172', secret = 's3cret', raw = '\0\255A',
                      one = 'only', ['gr\195\182\195\159e'] = '3'}
        for k, v in pairs(want) do assert(a[k] == v, k .. ' = ' .. tostring(a[k])) end
        assert(a.pair:match('^table: '), 'pair = ' .. tostring(a.pair))
        for _, k in ipairs({'onFlag', 'label', 'blank', 'hollow'}) do
            assert(a[k] == nil, k .. ' present')
        end
        assert(count(a) == 11 and #a == 11, count(a) .. ' names, ' .. #a .. ' listed')
        local seen = {}
        for i, name in ipairs(a) do
            assert(type(a[name]) == 'string' and not seen[name], 'entry ' .. i)
            seen[name] = true
        end)"),
              "");
}

TEST_F(LuaRecordTest, TextComesFirstThenChildren) {
    Note note("caf\xC3\xA9");
    note.second.ipAddress = wxS("::1");
    EXPECT_EQ(Check(note, R"(
        assert(rec.tag == 'Note' and rec[1] == 'caf\195\169' and #rec == 3, 'note')
        assert(next(rec.attr) == nil and next(rec[2].attr) == nil, 'defaults give nothing')
        assert(rec[2].tag == 'IP' and rec[3].tag == 'IP' and rec[3].attr.ipAddress == '::1'))"),
              "");
    EXPECT_EQ(Check(Note(""), "assert(#rec == 2 and rec[1].tag == 'IP' and rec.attr)"), "");
}

}  // namespace
