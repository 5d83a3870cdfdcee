// The verbs, one source each.
#pragma once

#include "options.h"

namespace command {

// Each declares the arguments of one verb, or of a group of verbs, and what it does.
void fillShare(Verb &group);
void fillCreate(Verb &verb);
void fillList(Verb &verb);
void fillShow(Verb &verb);
void fillDelete(Verb &verb);
void fillClone(Verb &verb);
void fillAttr(Verb &group);
void fillHold(Verb &group);
void fillConf(Verb &group);
void fillSync(Verb &verb);
void fillCount(Verb &verb);
void fillSize(Verb &verb);
void fillInfo(Verb &verb);
void fillRestore(Verb &verb);
void fillTree(Verb &verb);

} // namespace command
