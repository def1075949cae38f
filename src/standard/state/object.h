// object.h - single objects on the heap, without exceptions.
#ifndef TARN_STANDARD_OBJECT_H
#define TARN_STANDARD_OBJECT_H

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace tarn::standard {

// Null without memory.
template <class T> [[nodiscard]] T *make_object() noexcept
{
    void *const block = malloc(sizeof(T));
    return block ? new (block) T() : nullptr;
}

// The same for an object with a `text` of its own, which stands behind it in the same block.
template <class T> [[nodiscard]] T *make_with_text(std::string_view text) noexcept
{
    void *const block = malloc(sizeof(T) + text.size());
    if (!block)
        return nullptr;
    char *const behind = static_cast<char *>(block) + sizeof(T);
    if (!text.empty())
        memcpy(behind, text.data(), text.size());
    T *const made = new (block) T();
    made->text    = {behind, text.size()};
    return made;
}

template <class T> void destroy_object(T *object) noexcept
{
    if (object)
        object->~T();
    free(object);
}

// A function of the caller's that is called before the call it is passed to returns.
template <class Argument> class Visitor {
public:
    template <class Function>
    explicit Visitor(Function &function) noexcept
        : function_(&function),
          call_([](void *context, Argument &argument) { (*static_cast<Function *>(context))(argument); })
    {
    }

    void operator()(Argument &argument) const { call_(function_, argument); }

private:
    void *function_;
    void (*call_)(void *, Argument &);
};

} // namespace tarn::standard

#endif
