// Helpers for the host metadata tests: results summed up as text, and runs
// of a test body as another user or in a network namespace of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "core/host/HmdQueries.h"

namespace VeskTest {

// name=value;... of an item in list order; several values joined by "|".
inline std::string AttributesOf(const VeskCore::CHostMetaData& item) {
    std::string out;
    for (const VeskCore::XMLObject* child : item.attributes.GetChildren()) {
        const auto& attribute = static_cast<const VeskCore::CHostMetaDataAttribute&>(*child);
        std::string values;
        for (const wxString& value : attribute.value)
            values += (values.empty() ? "" : "|") + value.utf8_string();
        out += attribute.name.utf8_string() + "=" + values + ";";
    }
    return out;
}

// identifier -> attributes, of the items of a result.
inline std::map<std::string, std::string> Items(const VeskCore::CHostMetaDataQueryResult& result) {
    std::map<std::string, std::string> out;
    for (const VeskCore::XMLObject* child : result.items.GetChildren()) {
        const auto& item = static_cast<const VeskCore::CHostMetaData&>(*child);
        out[item.identifier.utf8_string()] = AttributesOf(item);
    }
    return out;
}

// Runs a query over UTF-8 arguments.
inline bool Query(VeskCore::HmdQuery query, VeskCore::CHostMetaDataQueryResult& result,
                  std::initializer_list<std::string> args) {
    std::vector<wxString> texts;
    for (const std::string& arg : args)
        texts.push_back(wxString::FromUTF8(arg));
    return query(result, static_cast<int>(texts.size()), texts.data());
}

// Runs `body` in a child process and returns what it returned; a child that
// dies gives "child died".
inline std::string InChild(const std::function<std::string()>& body) {
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        const std::string result = body();
        ssize_t written = write(ends[1], result.data(), result.size());
        _exit(written == static_cast<ssize_t>(result.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string result;
    char buffer[4096];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
        result.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? result : "child died";
}

}  // namespace VeskTest
