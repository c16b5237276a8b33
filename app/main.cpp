// qvxml: converts, imports and exports timelines through the editor's XML
// interchange plug-in, without the editor. Everything it does is in the
// qvxml_command library, from app/cli/RunCommand.cpp on.
#include "app/cli/RunCommand.h"

int main(int argc, char** argv) {
    return qvapp::runCommand(argc, argv);
}
