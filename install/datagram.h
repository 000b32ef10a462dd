// The installation protocol's datagram is declared in install_datagram.h,
// a name that cannot be taken for the boot services' netboot/datagram.h.
// This header stays for the files that still include it by the old name.
#pragma once

#include "install/install_datagram.h"
