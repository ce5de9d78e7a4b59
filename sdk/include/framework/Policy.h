// SPDX-License-Identifier: Apache-2.0
// Policies: what the agent's operator wants, parsed. A feature policy holds the feature's own settings and, as
// children, one policy for each of its tasks. The framework gives a task its feature's policy and the child that has
// the task's name (see PolicySlot in Task.h).
//
// Ownership: a module's policy callback makes them with new; the framework owns them afterwards.
// Thread:    made on the thread that delivers policies, then read by the feature's tasks, which do not run while the
//            framework replaces a policy; no lock inside.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Framework {

class Policy {
public:
    static constexpr int defaultPriority = 6;

    // `name`: that of the feature or the task.
    explicit Policy(const std::string& name, int priority = defaultPriority) : priority(priority), policyName(name) {}
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;
    virtual ~Policy() = default;

    // Fills the policy from its document. False: the document does not fit; what was taken over by then stays. This
    // default has nothing to fill: true.
    virtual bool Parse(const std::string& text);

    const std::string& Name() const { return policyName; }

    // Set on the policy in force when its successor is delivered. The framework then restarts the feature's tasks.
    bool changed = false;

    // Order in which the policies of several features are applied when they arrive together: highest first.
    int priority;

private:
    std::string policyName;
};

// A policy with others inside.
class CompositePolicy : public Policy {
public:
    using Policy::Policy;
    ~CompositePolicy() override = default;

    // Takes ownership. REQUIRES: not null. Children keep the order in which they were added.
    void Add(std::unique_ptr<Policy> child);

    // The first child with that name, null if there is none. Not owned by the caller; lives as long as this policy.
    Policy* Find(const std::string& name) const;

    const std::vector<std::unique_ptr<Policy>>& Children() const { return children; }

private:
    std::vector<std::unique_ptr<Policy>> children;
};

// The settings of one feature. Its name is what the tasks of the feature name in their constructors.
class FeaturePolicy : public CompositePolicy {
public:
    using CompositePolicy::CompositePolicy;
    ~FeaturePolicy() override = default;

    // Whether a document identified by (a, b) differs from this one. Mind the order: `a` is compared with the second
    // identity string and `b` with the first.
    bool PolicyChanged(const std::string& a, const std::string& b) const
    {
        return !(a == identityVersion && b == identityId);
    }

    // The document's two identity strings, both empty until the framework sets them.
    std::string identityId;
    std::string identityVersion;
};

// The settings of one task, by its name. Modules derive from it for settings of their own.
class TaskPolicy : public Policy {
public:
    using Policy::Policy;
    ~TaskPolicy() override = default;

    // The two settings of a periodic task, in seconds. A period of 0 keeps the task from running. Tasks of other types
    // ignore both.
    int firstDelaySeconds = 0;
    int periodSeconds = 0;
};

// A module's answer to a delivered policy document; see Module::RegisterPolicyCallback.
class AbstractPolicyCallback {
public:
    AbstractPolicyCallback() = default;
    AbstractPolicyCallback(const AbstractPolicyCallback&) = delete;
    AbstractPolicyCallback& operator=(const AbstractPolicyCallback&) = delete;
    virtual ~AbstractPolicyCallback() = default;

    // `name`: the feature's name. `content`: the document. `slot`: the framework's pointer to the policy in force, null
    // if there is none; the callback may mark that policy changed, the framework replaces the pointer afterwards.
    // Returns a new policy that the framework then owns, or null if the document is not for this module.
    // Thread: the one that delivers policies, never the feature's tasks'.
    virtual Policy* invoke(const std::string& name, const std::string& content, Policy*& slot) const = 0;
};

// Forwards a policy delivery to a member function of a module. The module is not owned and outlives the callback.
template <class T>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Method = Policy* (T::*)(const std::string& name, const std::string& content, Policy*& slot);

    PolicyCallback(T* module, Method method) : module(module), method(method) {}

    Policy* invoke(const std::string& name, const std::string& content, Policy*& slot) const override
    {
        return (module->*method)(name, content, slot);
    }

private:
    T* module;
    Method method;
};

}  // namespace Framework
