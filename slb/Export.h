// Symbol visibility of the binder. The project compiles with -fvisibility=hidden;
// what a host (or a second library in the process) calls is marked SLB_EXPORT.
#pragma once

#define SLB_EXPORT __attribute__((visibility("default")))
