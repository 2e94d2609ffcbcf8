// Start-up and clean-up of the desktop program.
#pragma once

// Steps of the start-up, from the toolkit to the notices; 1 on success, 0 when the
// program must end (no state record, no link, a display that is not 24 bits deep, no
// connection to the viewer). The toolkit must have been initialised.
int PCD_InitializeApplication(int argc, char** argv);
// Releases everything in the fixed order; nothing when there is no state record.
void PCD_CleanUpApplication();
// The 360 ms timer that services the viewer link.
int PCD_ServiceTimer(void*);
