// The order in which a batch of OneDrive changes can be applied to a tree: the delta reports
// what changed, not in an order a tree can follow. Two passes:
//   1. within a run of deletes, deeper paths go first, so a folder is empty when its turn comes;
//   2. a rename whose target lies below a path that a later delete removes goes after that
//      delete, so the delete can't swallow what the rename put there.
#pragma once

#include <vector>

#include "core/FileSystem.h"

void OrderOneDriveChanges(std::vector<FileSystem::Change>* changes);
