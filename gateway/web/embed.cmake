# Turns the page into a C++ string at build time, so that the gateway serves it from
# its own binary: nothing to install beside it, nothing fetched from elsewhere.
# cmake -DIN=page.html -DOUT=web_page.cpp -DSYMBOL=kWebPageHtml -P embed.cmake
file(READ ${IN} content)
file(WRITE ${OUT} "// Made from ${IN} at build time; edit that file.\nnamespace rtugw {\nextern const char ${SYMBOL}[];\nconst char ${SYMBOL}[] = R\"RTUPLCPAGE(${content})RTUPLCPAGE\";\n} // namespace rtugw\n")
