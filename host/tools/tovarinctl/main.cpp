// tovarinctl: see TovarinCtl.h.
#include "TovarinCtl.h"

#include <binder/IServiceManager.h>

int main(int argc, char** argv) {
    morvel::tovarin::binder::TovarinCtl ctl(android::defaultServiceManager(), stdout, stderr);
    return ctl.run(argc, argv);
}
