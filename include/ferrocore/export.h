// Symbol visibility for the base library. Everything not marked is hidden.
#pragma once

#define FERROCORE_EXPORT __attribute__((visibility("default")))
