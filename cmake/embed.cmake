# cmake -DINPUT=FILE -DOUTPUT=FILE.cc -DNAME=SYMBOL -P embed.cmake
# Writes a C++ source defining SYMBOL (the bytes of INPUT) and SYMBOLSize:
# the same on every compiler and target, with no assembler or linker tricks.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT} by embed.cmake.\n"
  "extern const unsigned char ${NAME}[];\nextern const unsigned long ${NAME}Size;\n"
  "const unsigned char ${NAME}[] = {\n${bytes}0};\n"
  "const unsigned long ${NAME}Size = ${size};\n")
configure_file("${OUTPUT}.tmp" "${OUTPUT}" COPYONLY)
