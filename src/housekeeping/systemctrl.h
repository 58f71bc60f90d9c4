// Periodic supervision: time sync, camera properties, battery, network, SD capacity.
#pragma once

// Starts the supervision threads. 0 or -1.
int InitSystemCtrl();
