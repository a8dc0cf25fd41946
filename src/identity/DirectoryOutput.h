#pragma once

// What the directory tools print, read by fixed marks. Each reader takes a tool's output, or null for none,
// and answers null for output that lacks its marks. Results belong to the caller. Pure but for the one line
// that distinguishedName prints; any thread.

class GPArray;
class GPString;

// The user's domain, from `dscl`'s AuthenticationAuthority.
GPString* netLogonDomain(const GPString* output);

// This computer's domain, from Likewise's status.
GPString* likewiseDomain(const GPString* output);

// This computer's domain, from the tool adinfo.
GPString* adinfoDomain(const GPString* output);

// The user's distinguished name, from `dscl`. Prints where its mark was found.
GPString* distinguishedName(const GPString* output);

// The lines behind `mark`, trimmed. The mark counts only behind the first character of the output.
GPArray* groupsBehind(const GPString* output, const char* mark);
