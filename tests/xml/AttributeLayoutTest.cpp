// The attribute names a record registers: walked in the order of the wx hash
// map the table once was, found by name, and shared between records of one
// kind, also when the names come from data and when threads build records
// at once.
#include <gtest/gtest.h>
#include <wx/hashmap.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

WX_DECLARE_STRING_HASH_MAP(int, NameMap);

struct Step {
    std::string name;
    std::string renamedTo;  // not empty: ReplaceAttribute(name, renamedTo)
};

// A record whose names come from data, as a generic record's would.
class DataRecord : public XMLObject {
  public:
    DataRecord(const std::vector<Step>& steps, bool strict) : XMLObject(false, strict) {
        values.resize(steps.size());
        for (size_t i = 0; i < steps.size(); ++i) {
            if (steps[i].renamedTo.empty())
                AddAttribute(steps[i].name.c_str(), &values[i]);
            else
                ReplaceAttribute(steps[i].name.c_str(), steps[i].renamedTo.c_str(), &values[i], 0,
                                 false);
        }
    }
    wxString GetElementName() const override { return wxS("Data"); }

    std::vector<std::string> Walk() const {
        std::vector<std::string> names;
        EnumAttributes(
            [](const XMLObject*, const char* name, _PrimitiveType, const void*, void* out) {
                static_cast<std::vector<std::string>*>(out)->push_back(name);
                return true;
            },
            &names);
        return names;
    }

    std::vector<int> values;  // sized before registration: members must not move
};

// The order a wx string hash map gives after the same steps, and the step
// whose member each name keeps.
std::vector<std::string> MapOrder(const std::vector<Step>& steps, NameMap& owners) {
    owners = NameMap(5);
    for (size_t i = 0; i < steps.size(); ++i) {
        const std::string& added = steps[i].renamedTo.empty() ? steps[i].name : steps[i].renamedTo;
        if (!steps[i].renamedTo.empty())
            owners.erase(W(steps[i].name));
        if (owners.find(W(added)) == owners.end())
            owners[W(added)] = static_cast<int>(i);
    }
    std::vector<std::string> names;
    for (const auto& entry : owners)
        names.push_back(U(entry.first));
    return names;
}

std::vector<Step> RandomSteps(std::mt19937& random, const std::vector<std::string>& pool) {
    std::vector<Step> steps(random() % 40);
    for (Step& step : steps) {
        step.name = pool[random() % pool.size()];
        if (random() % 8 == 0)
            step.renamedTo = pool[random() % pool.size()];
    }
    return steps;
}

// Walk order, lookup and member of every name, against the map; "" if all agree.
std::string Mismatch(const std::vector<Step>& steps, bool strict) {
    DataRecord record(steps, strict);
    NameMap owners;
    const std::vector<std::string> expected = MapOrder(steps, owners);
    if (record.Walk() != expected)
        return "walk order";
    for (const auto& entry : owners) {
        // A record that ignores case takes the first name in walk order that
        // matches.
        wxString target = entry.first;
        for (const std::string& name : expected)
            if (!strict && W(name).CmpNoCase(entry.first) == 0) {
                target = W(name);
                break;
            }
        int& member = record.values[static_cast<size_t>(owners[target])];
        if (record.GetAttributeName(&member) != target)
            return "name of the member of " + U(target);
        if (!record.SetAttribute(entry.first, wxS("17")) || member != 17)
            return "lookup of " + U(entry.first);
        member = 0;
    }
    return "";
}

const std::vector<std::string> kPool = {
    "id",  "name", "Name", "port", "bytes", "x", "", "gr\303\266\303\237e",
    "a.b", "NAME", "p0",   "p1",   "p2"};

TEST(AttributeLayoutTest, WalkAndLookupFollowTheMapTheTableReplaces) {
    std::mt19937 random(11);
    for (int round = 0; round < 3000; ++round) {
        const std::vector<Step> steps = RandomSteps(random, kPool);
        // Built a second time, the record takes the layout the first one left.
        for (const bool strict : {true, true, false})
            ASSERT_EQ(Mismatch(steps, strict), "") << "round " << round;
    }
}

TEST(AttributeLayoutTest, CaseBlindLookupFindsTheFirstNameInWalkOrder) {
    DataRecord record({{"name", ""}, {"Name", ""}, {"NAME", ""}, {"port", ""}}, false);
    const std::vector<std::string> walk = record.Walk();
    const auto first = std::find_if(walk.begin(), walk.end(), [](const std::string& name) {
        return W(name).CmpNoCase(wxS("name")) == 0;
    });
    ASSERT_NE(first, walk.end());
    ASSERT_TRUE(record.SetAttribute(wxS("nAmE"), wxS("5")));
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(record.values[i] == 5, record.GetAttributeName(&record.values[i]) == W(*first));
    ASSERT_TRUE(record.SetAttribute(wxS("PORT"), wxS("8")));  // one spelling only: exact or not
    EXPECT_EQ(record.values[3], 8);
}

// Names that no other record has, past the bounds of what is shared.
TEST(AttributeLayoutTest, NamesMadeFromDataStayCorrectPastTheSharingBounds) {
    for (int i = 0; i < 600; ++i) {
        std::vector<Step> steps;
        for (int j = 0; j < 5; ++j)
            steps.push_back({"f" + std::to_string(i) + "_" + std::to_string(j), ""});
        steps.push_back({"f" + std::to_string(i) + "_1", "g" + std::to_string(i)});
        ASSERT_EQ(Mismatch(steps, true), "") << i;
        ASSERT_EQ(Mismatch(steps, false), "") << i;
    }
}

TEST(AttributeLayoutTest, ThreadsBuildingRecordsAtOnceAgree) {
    std::vector<std::string> failures(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < failures.size(); ++t)
        threads.emplace_back([t, &failures] {
            std::mt19937 random(static_cast<unsigned>(t));
            for (int round = 0; round < 500 && failures[t].empty(); ++round) {
                std::vector<std::string> pool = kPool;
                pool.push_back("t" + std::to_string(round % 90));  // fresh steps now and then
                failures[t] = Mismatch(RandomSteps(random, pool), round % 2 == 0);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& failure : failures)
        EXPECT_EQ(failure, "");
}

}  // namespace
