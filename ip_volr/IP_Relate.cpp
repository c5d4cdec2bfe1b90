#include "ip_volr/IP_Relate.h"

const char* vessel_search_outcome_text(VesselSearchOutcome outcome) {
    switch (outcome) {
        case kVesselSearchFound:
            return "vessel found";
        case kVesselSearchNothingVisible:
            return "nothing that counts lies on the ray";
        case kVesselSearchStartsInside:
            return "the visible voxel is the first of the ray, so no way into a vessel can be followed";
        case kVesselSearchNoVessel:
            return "no point of the ray is inside a vessel";
        case kVesselSearchNoBounds:
            return "a wall of the vessel lies beyond the end of the ray";
        case kVesselSearchUnstable:
            return "the walls of the vessel kept moving";
        case kVesselSearchThinTooThick:
            return "what looks like a thin vessel is not thin";
        case kVesselSearchThickTooThin:
            return "what looks like a thick vessel is not thick";
        case kVesselSearchEntryTooFar:
            return "the vessel begins too far in front of the visible voxel";
        case kVesselSearchCalcificationTooLong:
            return "the calcification in front of the vessel is too long";
    }
    return "";
}
