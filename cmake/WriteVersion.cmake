string(TIMESTAMP stamp "%Y-%m-%d %H:%M:%S")
set(text "${WORDS} (${stamp})")
file(WRITE ${OUT}.tmp "// Generated at build time.\n#include \"app/version.h\"\nnamespace tarnlift::app {\nconst char* const kVersionWords = \"${WORDS}\";\nconst char* const kVersionText = \"${text}\";\n}  // namespace tarnlift::app\n")
file(COPY_FILE ${OUT}.tmp ${OUT} ONLY_IF_DIFFERENT)
