// The files that a page is made of, each followed by a zero byte.
.macro asset name, file
  .global \name
\name:
  .incbin "\file"
  .byte 0
.endm

.section .rodata
asset veskPageHtml, "page/page.html"
asset veskPageCss, "page/page.css"
asset veskPageJs, "page/page.js"
asset veskD3Js, "third_party/d3.min.js"
asset veskD3Licence, "third_party/d3.LICENSE"
asset veskFlameGraphJs, "third_party/d3-flame-graph.min.js"
asset veskFlameGraphLicence, "third_party/d3-flame-graph.LICENSE"
asset veskUplotJs, "third_party/uplot.min.js"
asset veskUplotCss, "third_party/uplot.min.css"
asset veskUplotLicence, "third_party/uplot.LICENSE"

.section .note.GNU-stack, "", @progbits
