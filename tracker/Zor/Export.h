// Marks what libZorChildProcessTracker shows to others; everything else stays inside it.
#pragma once

#define ZOR_EXPORT __attribute__((visibility("default")))
