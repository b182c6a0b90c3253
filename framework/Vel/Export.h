// Marks what libvel shows to others; everything else stays inside it.
#pragma once

#define VEL_EXPORT __attribute__((visibility("default")))
