// Text that is safe to show: names on a card come from strangers, and a terminal obeys what it is sent.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_PRINTABLE_H
#define QUARRIN_PLATFORM_PRINTABLE_H

#include <string>

/// The text with control characters written as they are in C: \n, \x1b, \u0085. These are the control characters of C0
/// and C1, the separators of lines and paragraphs (U+2028, U+2029), the marks that turn the direction of writing, and
/// bytes that are no UTF-8. All else stays as it is, the backslash too.
std::string PLATFORM_Printable(const std::string &strText);

/// The text is UTF-8, without surrogates and overlong forms.
bool PLATFORM_IsUtf8(const std::string &strText);

#endif
