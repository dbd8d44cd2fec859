# Makes one program of the C++ examples of a document: `program N` runs the Nth of them. An example
# that opens no session of its own is given one; one that begins with an include is a program by
# itself, tested elsewhere, and runs as nothing here.
BEGIN {
  print "#include <hxcrate/crate.hpp>"
  print "#include <hxcrate/inspect.hpp>"
  for (n = split("algorithm chrono cstdio cstdlib fstream iostream iterator string thread vector", headers); n > 0; --n)
    print "#include <" headers[n] ">"
  print "namespace {"
}

/^```cpp$/ {
  first = FNR + 1
  block = ""
  while ((getline line) > 0 && line != "```") block = block line "\n"
  print "void example" ++count "() {"
  if (block !~ /^#include/) {
    if (block !~ /hxcrate::Session session[;({]/) print "[[maybe_unused]] hxcrate::Session session;"
    printf "#line %d \"%s\"\n%s", first, FILENAME, block
  }
  print "}"
}

END {
  print "}  // namespace"
  print "int main(int, char** arguments) try {"
  print "switch (std::stoi(arguments[1])) {"
  for (n = 1; n <= count; ++n) print "case " n ": example" n "(); return 0;"
  print "default: return 2;"
  print "}"
  print "} catch (const std::exception& error) {"
  print "std::cerr << error.what() << '\\n';"
  print "return 1;"
  print "}"
}
