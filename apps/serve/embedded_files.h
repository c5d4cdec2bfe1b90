// The page's files, which are part of the program.
#pragma once

#include <string_view>

namespace serve {

// A file of the page by its name ("index.html"); empty when there is none. Valid for ever.
std::string_view EmbeddedFile(std::string_view name);

// By the ending of a name.
std::string_view ContentType(std::string_view name);

}  // namespace serve
