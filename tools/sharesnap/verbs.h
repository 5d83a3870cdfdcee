// The verbs, one source each. Each function adds one verb, or one group of verbs, to the command.
#pragma once

#include "options.h"

namespace command {

void addShareVerbs(Verb &root);
void addCreateVerb(Verb &root);
void addListVerb(Verb &root);
void addShowVerb(Verb &root);
void addAttrVerbs(Verb &root);
void addConfVerbs(Verb &root);
void addCountVerb(Verb &root);
void addDeleteVerb(Verb &root);
void addHoldVerbs(Verb &root);
void addSyncVerb(Verb &root);
void addCloneVerb(Verb &root);
void addSizeVerb(Verb &root);
void addInfoVerb(Verb &root);

} // namespace command
