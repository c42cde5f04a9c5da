// The message catalogue: one printf format per number, consuming exactly the
// arguments the program passes with that number.
#ifndef TARNEL_DXTTEST_CATALOGUE_H
#define TARNEL_DXTTEST_CATALOGUE_H

#include <cstdarg>
#include <cstddef>
#include <span>

namespace dxt {

std::span<const int> catalogue_numbers();
const char *catalogue_format(int number);  // nullptr when unknown

// The text of a message into text (at most size bytes with its end): a free
// text (number 0) from its format and arguments, a numbered one from the
// catalogue, an unknown number as such without reading any argument. One
// trailing newline and trailing blanks are dropped; the usage message gets
// the option list, built from the test's options text, appended.
void format_message_text(char *text, size_t size, int number, const char *options_text, va_list args);

}  // namespace dxt

#endif
