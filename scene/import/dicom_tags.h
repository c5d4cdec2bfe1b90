// Typed access to DICOM data elements.
#ifndef SCENE_IMPORT_DICOM_TAGS_H
#define SCENE_IMPORT_DICOM_TAGS_H

#include <gdcmDataSet.h>
#include <gdcmSequenceOfItems.h>

#include <optional>
#include <string>
#include <vector>

#include "scene/import/grid_geometry.h"

namespace scene::import {

// Text of an element without padding; empty when it is missing.
std::string TagText(const gdcm::DataSet& data, const gdcm::Tag& tag);

// The numbers of an element, text or binary as its type says; what is no finite number ends the list.
std::vector<double> TagNumbers(const gdcm::DataSet& data, const gdcm::Tag& tag);
std::optional<double> TagNumber(const gdcm::DataSet& data, const gdcm::Tag& tag);
std::optional<int> TagInteger(const gdcm::DataSet& data, const gdcm::Tag& tag);
std::optional<Vec3> TagVec3(const gdcm::DataSet& data, const gdcm::Tag& tag);

// The items of a sequence; null when it is missing or no sequence.
gdcm::SmartPointer<gdcm::SequenceOfItems> TagSequence(const gdcm::DataSet& data, const gdcm::Tag& tag);

// The first item of a sequence as a data set of its own; an empty one when there is none.
gdcm::DataSet FirstItem(const gdcm::DataSet& data, const gdcm::Tag& tag);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_TAGS_H
