// INDEXINIT, INDEXLOGGERFILE and INDEXSAVE580: numbered logger files and
// recorder folders.
//   INDEXINIT index file, name template, limit
//   INDEXLOGGERFILE logger window title[, index file number]
//   INDEXSAVE580 source folder, extension[, index file number]
// The index file number counts the INDEXINIT commands of the run from 1
// (empty gives 1). Their messages are only acknowledged; the sequence goes
// on after them.
#pragma once

#include <vector>

#include "sequencer/keyword.h"

namespace tavrix {

class Sequencer;
class Companion;

std::vector<KeywordEntry> IndexingKeywords();
void RegisterIndexingCommands(Sequencer& sequencer, Companion& companion);

}  // namespace tavrix
