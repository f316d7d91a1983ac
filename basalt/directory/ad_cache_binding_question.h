// Questions to a binding of the agent, as its memory knows them. Internal to the binding.
#pragma once

#include <string>
#include <vector>

#include "basalt/directory/directory.h"

namespace lumo {

// The filter that every object matches.
inline constexpr char ANY_OBJECT[] = "(objectClass=*)";

// A list that ends with a null pointer; none for a null pointer.
std::vector<std::string> attributeList(const char* const* attributes);

// The question as one text: names compare without case.
std::string questionText(const DirectorySearch& what, int sizeLimit);

}  // namespace lumo
