// The test's sub-options as the harness knows them: the usage's option list,
// and what the test's own parser would refuse without a word or take wrong.
#ifndef TARNEL_DXTTEST_SUBOPTIONS_H
#define TARNEL_DXTTEST_SUBOPTIONS_H

#include <string>
#include <string_view>

namespace dxt {

// The usage's option list, with the test's own options text.
std::string usage_details(const char *options_text);
// What the usage error adds about the items of an unaccepted sub-option
// text that the parser refuses without a message of its own: empty items
// and keywords the test does not take. "" when there are none.
std::string silently_refused(std::string_view subopts);
// A test_mask item whose digits do not fit in 32 bits, which the parser
// would wrap without a word: "" when there is none.
std::string oversized_mask(std::string_view subopts);

}  // namespace dxt

#endif
