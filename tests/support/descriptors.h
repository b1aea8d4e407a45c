#ifndef DESCRIPTORS_H
#define DESCRIPTORS_H

#include <vector>

/// The number that the next open() in this process yields.
int nextDescriptor();

/// Occupies descriptors while it lives, so that the next one does not fit an fd_set.
class DescriptorsUpToSelectLimit {
public:
    DescriptorsUpToSelectLimit();
    ~DescriptorsUpToSelectLimit();
    DescriptorsUpToSelectLimit(const DescriptorsUpToSelectLimit &) = delete;
    DescriptorsUpToSelectLimit &operator=(const DescriptorsUpToSelectLimit &) = delete;

private:
    std::vector<int> m_descriptors;
};

#endif // DESCRIPTORS_H
