#include <quillcore/control/QuillCoreVersion.h>

const char QuillCoreVersionString[] = "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303\n";
const double QuillCoreVersionNumber = 303.0;
