// Records handed to scripts: the tables that toLua builds, inspected by Lua itself.
#include <gtest/gtest.h>

#include <lua.hpp>
#include <string>

#include "core/xml/Interfaces.h"
#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

// Runs `chunk` in a fresh state with the record's table as `rec` and `xml` as a global of the
// same name: "" when it ran, else its error.
std::string Check(const XMLObject& record, const std::string& chunk, const std::string& xml = "") {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    lua_pushstring(L, xml.c_str());
    lua_setglobal(L, "xml");
    EXPECT_EQ(record.toLua(L), 1);
    EXPECT_EQ(lua_gettop(L), 1);  // one table pushed, nothing else
    lua_setglobal(L, "rec");
    const std::string code =
        "local function count(t) local n = 0 for k in pairs(t) do"
        " if type(k) == 'string' then n = n + 1 end end return n end " +
        chunk;
    const std::string error = luaL_dostring(L, code.c_str()) == LUA_OK ? "" : lua_tostring(L, -1);
    lua_close(L);
    return error;
}

TEST(LuaRecordTest, InterfaceTreeArrivesAsTaggedTables) {
    CInterfaces interfaces;
    ASSERT_EQ(
        Read(interfaces, R"(<Interfaces><Interface id="7" name="eth0" dhcp="true" typeId="6">)"
                         R"(<IPs><IP ipAddress="10.0.0.5"/><IP ipAddress="192.168.1.9"/>)"
                         R"(</IPs></Interface></Interfaces>)"),
        0);
    auto* nic = static_cast<CInterface*>(interfaces.Children().GetFirst()->GetData());
    nic->SetMACBinary("\x00\x1A\x2B\x3C\x4D\x5E", 6);
    EXPECT_EQ(nic->mac, wxS("00:1A:2B:3C:4D:5E"));  // before any write could mend it
    // attr lists its names in the table's order, which the written start tag shows too.
    EXPECT_EQ(Check(interfaces, R"(
        assert(rec.tag == 'Interfaces' and next(rec.attr) == nil and #rec == 1, 'list')
        local nic, order = rec[1], {}
        for name in xml:match('^[^>]*'):gmatch(' (%w+)="') do order[#order + 1] = name end
        assert(nic.tag == 'Interface' and #nic == 1 and nic.attr.mac == '00:1A:2B:3C:4D:5E'
               and count(nic.attr) == 5 and table.concat(nic.attr, ' ') == table.concat(order, ' '),
               table.concat(nic.attr, ' '))
        local ips = nic[1]
        assert(ips.tag == 'IPs' and next(ips.attr) == nil and #ips == 2 and ips[1].tag == 'IP'
               and ips[2].attr.ipAddress == '192.168.1.9' and #ips[2].attr == 1, 'addresses'))",
                    U(nic->toString())),
              "");
}

TEST(LuaRecordTest, EveryValueArrivesAsTextUnlessItIsTheDefault) {
    Sample sample;  // nothing marked: only defaults decide what is left out
    sample.words.Add(wxString());
    EXPECT_EQ(Check(sample,
                    "local a = rec.attr assert(count(a) == 4 and #a == 4 and"
                    " a.plainFlag == 'false' and a.plainCount == '0' and"
                    " a.plainBig == '0' and a.note == '')"),
              "");
    sample.blob.AppendData("\0\xFFZ", 3);
    sample.plainFlag = true;
    sample.count = -42;
    sample.big = 1234567890123456789LL;
    sample.colour = W("Zürich €");
    sample.secret.assign("s3cret");
    sample.tags.Add(wxS("only"));
    sample.words.Add(wxS("b"));
    sample.size = 4;
    EXPECT_EQ(Check(sample, R"(
        local a = rec.attr
        local want = {blob = '\0\255Z', plainFlag = 'true', count = '-42', plainCount = '0',
                      big = '1.2345678901235e+18', plainBig = '0', note = '',
                      colour = 'Z\195\188rich \226\130\172', secret = 's3cret', tags = 'only',
                      ['gr\195\182\195\159e'] = '4'}
        for k, v in pairs(want) do assert(a[k] == v, k .. ' = ' .. tostring(a[k])) end
        assert(a.words:match('^table: '), 'words = ' .. tostring(a.words))
        assert(count(a) == 12 and #a == 12, count(a) .. ' names, ' .. #a .. ' listed')
        local listed = {}
        for _, name in ipairs(a) do listed[name] = a[name] end
        assert(count(listed) == 12, 'names listed twice'))"),
              "");
}

TEST(LuaRecordTest, TextComesFirstThenChildren) {
    Note note(true, "caf\xC3\xA9");
    note.AddChild(&note.ip);
    note.ip.ipAddress = wxS("::1");
    EXPECT_EQ(Check(note, R"(
        assert(rec.tag == 'Note' and rec[1] == 'caf\195\169' and #rec == 2, 'note')
        assert(next(rec.attr) == nil and rec[2].tag == 'IP' and rec[2].attr.ipAddress == '::1'))"),
              "");
}

}  // namespace
