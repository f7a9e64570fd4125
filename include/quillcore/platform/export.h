// Symbol visibility for the platform layer (host object runtime and host services).
#pragma once

#define QUILL_PLATFORM_EXPORT __attribute__((visibility("default")))
