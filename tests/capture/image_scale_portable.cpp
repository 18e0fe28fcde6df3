// The same reduction without the wider vectors, to compare the two.
#define VESKO_PORTABLE_VECTORS
#define ImageScaler PortableImageScaler
#define scaleImage scaleImagePortably
#include "tools/image_scale.cpp"  // NOLINT(bugprone-suspicious-include)
