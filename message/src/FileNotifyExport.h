#pragma once

// Classes that consumers and the module share across library boundaries.
#define FILENOTIFY_API __attribute__((visibility("default")))
