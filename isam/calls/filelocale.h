// filelocale: the locale that orders a file, and the client's.
#pragma once

namespace isam {

// Whether the client's locale is the one that the current file was built with: 0, or -1 with 117
// or 159. A file without a locale suits every client.
int check_locale();

// Notes the client locale's name in the dictionary copy: 0, or -1 with 159.
int name_collation();

}  // namespace isam
