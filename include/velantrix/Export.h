/// @file
/// Marks what the shared library hands out.
///
/// The library is built with hidden visibility; a class that callers use across the library's
/// border carries `PKX509_EXPORT`, so that its operations, virtual table and typeinfo are visible.
/// Typeinfo matters for `Velantrix::Exception`: a program that loads the library with `dlopen` can
/// only catch what both sides know under one name.
#pragma once

#define PKX509_EXPORT __attribute__((visibility("default")))
