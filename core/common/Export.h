// Symbol visibility of the library. Everything is hidden by default; only what a
// host or a Lua state may call is marked VESK_EXPORT.
#pragma once

#define VESK_EXPORT __attribute__((visibility("default")))
#define VESK_C_EXPORT extern "C" VESK_EXPORT
