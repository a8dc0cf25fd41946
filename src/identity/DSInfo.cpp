#include "identity/DSInfo.h"

#include "gp/GPString.h"

GPString* DSInfo::className() { return GPString::string(cclassName()); }

char const* DSInfo::cclassName() { return "DSInfo"; }
