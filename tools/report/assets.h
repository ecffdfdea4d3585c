// The files that a page is made of, as the build has put them into the program (assets.S).
#pragma once

extern "C" {
extern const char veskPageHtml[];
extern const char veskPageCss[];
extern const char veskPageJs[];
extern const char veskD3Js[];
extern const char veskD3Licence[];
extern const char veskFlameGraphJs[];
extern const char veskFlameGraphLicence[];
extern const char veskUplotJs[];
extern const char veskUplotCss[];
extern const char veskUplotLicence[];
}
