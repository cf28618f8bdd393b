#pragma once
// Descriptors of a descriptor loop as report nodes: tag and name, the fields
// of the kinds mpegcore models, the raw payload of the others.

#include "mpegcore/vqdescriptorlist.h"
#include "report_node.h"

report_node describe_descriptor(const mpegcore::base_descriptor& descriptor);
// An array node with one element per descriptor of the list.
report_node describe_descriptors(const mpegcore::VQDescriptorList& list);
