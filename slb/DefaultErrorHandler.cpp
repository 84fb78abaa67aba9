#include "slb/DefaultErrorHandler.h"

#include <cstdio>
#include <lua.hpp>

namespace SLB {

void DefaultErrorHandler::begin(const char* error) {
    text_ = error;
    text_ += "\nstack traceback:";
}

void DefaultErrorHandler::stackElement(int, lua_Debug* info) {
    text_ += "\n\t";
    text_ += info->short_src;
    if (info->currentline > 0) {
        char line[32];
        std::snprintf(line, sizeof line, ":%d", info->currentline);
        text_ += line;
    }
    text_ += ": in ";
    if (*info->namewhat != '\0') {
        text_ += "function '";
        text_ += info->name ? info->name : "?";
        text_ += "'";
    } else if (*info->what == 'm') {
        text_ += "main chunk";
    } else if (*info->what == 'C') {
        text_ += "?";
    } else {
        char where[128];
        std::snprintf(where, sizeof where, "function <%s:%d>", info->short_src, info->linedefined);
        text_ += where;
    }
}

}  // namespace SLB
