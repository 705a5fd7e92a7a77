// A small XML well-formedness check for the documents the agent writes: one
// root element, properly nested and closed tags, quoted attributes without
// duplicates, known entity references, an optional declaration and comments.
#pragma once

#include <string>

namespace AgentTest {

// Returns "" when text is a well-formed XML document, else a description of
// the first problem with its byte offset.
std::string xmlProblem(const std::string& text);

}  // namespace AgentTest
