#pragma once

// The libraries are built with hidden visibility; what a module or a
// consumer may use is marked with one of these.
#define FRAMEWORK_API __attribute__((visibility("default")))
