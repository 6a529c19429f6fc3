// Every keyword the engine binds, family by family, with its parse: what
// `tavrix-cli lint` checks a line's arguments with, without an engine.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

// The keywords of every family; a name given by two families throws
// std::logic_error, as binding it twice does.
const std::vector<KeywordEntry>& KeywordCatalogue();

// The entry of `name`, or nullptr for a word that is no keyword.
const KeywordEntry* FindKeyword(std::string_view name);

}  // namespace tavrix
