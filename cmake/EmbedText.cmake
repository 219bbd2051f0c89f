# A text file as a string in the program: cmake -DIN=FILE -DOUT=FILE -P EmbedText.cmake writes a
# raw string literal, to be included as the value of a constant.
file(READ "${IN}" text)
file(WRITE "${OUT}" "R\"EMBEDDED(${text})EMBEDDED\"\n")
