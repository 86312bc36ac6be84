// Samples of processes, whether they stay flat, and the report.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "core/types.h"

struct Sample {
    int rss = 0;  // kB
    int descriptors = 0;
    int blocks = -1, objects = -1;  // in the shared memory; -1 for who does not show them
};

// A process that lives as long as the soak.
struct Subject {
    std::string name;
    ProcIdT id;
    pid_t pid;
    std::vector<Sample> samples;
};

// Of the operating system's and, for the id of a managed process, of the viewer's shared memory.
void TakeSample(Subject& subject);

// The table of samples, and for each figure the means of the second and the last third. Flat: the
// last mean is above the second one by no more than a twentieth and, besides, 512 kB, 4
// descriptors, 100 blocks, 100 objects. Adds a fault for each figure that is not.
std::string SamplesText(const std::vector<Subject>& subjects, int seconds,
                        std::vector<std::string>& faults);

// What a process does, for one that does not answer.
std::string WhatItDoes(ProcIdT id, pid_t pid);
