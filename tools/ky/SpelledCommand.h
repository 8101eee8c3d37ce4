#pragma once

#include <string>
#include <vector>

namespace ky::tool {

/// A command whose words the local character set does not have. A program is given bytes, which
/// need be no text, but the library takes texts: so ky is started in the place of the program, with
/// everything spelled in ASCII, and becomes it. `environment` is added to that of ky; without
/// `folder` the current one stays.
std::vector<std::string> SpellCommand(const std::vector<std::string>& command,
                                      const std::vector<std::string>& environment,
                                      const std::string& folder);

/// Becomes the command that `argv`, the words of a process, spells, or tells why not and ends the
/// process. Returns when they are any other words.
void BecomeSpelledCommand(char** argv);

}  // namespace ky::tool
