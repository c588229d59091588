#include "reg_model.hpp"

#include <stdlib.h>

#include <gtest/gtest.h>

#include "lh_regs.hpp"

#define MAX_MODELS 8

static struct reg_model *models[MAX_MODELS];

void *reg_model_attach(struct reg_model *model, size_t size)
{
    model->words = static_cast<uint32_t *>(calloc(size / 4, sizeof(uint32_t)));
    model->size = size;
    model->reads = 0;
    model->writes = 0;
    if (model->words == NULL) {
        ADD_FAILURE() << "no memory for a register model";
        return NULL;
    }
    for (size_t i = 0; i < MAX_MODELS; i++) {
        if (models[i] == NULL) {
            models[i] = model;
            return model->words;
        }
    }
    ADD_FAILURE() << "too many register models";
    return NULL;
}

void reg_model_detach(struct reg_model *model)
{
    for (size_t i = 0; i < MAX_MODELS; i++)
        if (models[i] == model)
            models[i] = NULL;
    free(model->words);
    model->words = NULL;
}

uint32_t reg_model_peek(const struct reg_model *model, uint32_t offset)
{
    if (offset % 4 != 0 || offset >= model->size) {
        ADD_FAILURE() << "register model peek outside the window at " << offset;
        return 0;
    }
    return model->words[offset / 4];
}

void reg_model_store(struct reg_model *model, uint32_t offset, uint32_t value)
{
    if (offset % 4 != 0 || offset >= model->size) {
        ADD_FAILURE() << "register model store outside the window at " << offset;
        return;
    }
    model->words[offset / 4] = value;
}

void reg_model_fill(struct reg_model *model, uint32_t value)
{
    for (size_t i = 0; i < model->size / 4; i++)
        model->words[i] = value;
}

/* The model holding `address`, and the offset of it in that model. */
static struct reg_model *find_model(volatile void *address, uint32_t *offset)
{
    uintptr_t at = (uintptr_t)address;

    for (size_t i = 0; i < MAX_MODELS; i++) {
        struct reg_model *model = models[i];
        uintptr_t start;

        if (model == NULL)
            continue;
        start = (uintptr_t)model->words;
        if (at >= start && at < start + model->size) {
            *offset = (uint32_t)(at - start);
            return model;
        }
    }
    return NULL;
}

uint32_t lh_reg_model_read(volatile void *base, uint32_t offset)
{
    volatile uint8_t *address = (volatile uint8_t *)base + offset;
    uint32_t model_offset;
    struct reg_model *model = find_model(address, &model_offset);
    uint32_t stored;

    if (model == NULL) {
        ADD_FAILURE() << "register read outside every model at "
                      << (const void *)address;
        return 0;
    }
    model->reads++;
    stored = model->words[model_offset / 4];
    if (model->on_read != NULL)
        return model->on_read(model, model_offset, stored);
    return stored;
}

void lh_reg_model_write(volatile void *base, uint32_t offset, uint32_t value)
{
    volatile uint8_t *address = (volatile uint8_t *)base + offset;
    uint32_t model_offset;
    struct reg_model *model = find_model(address, &model_offset);

    if (model == NULL) {
        ADD_FAILURE() << "register write outside every model at "
                      << (const void *)address;
        return;
    }
    model->writes++;
    if (model->on_write != NULL)
        model->on_write(model, model_offset, value);
    else
        model->words[model_offset / 4] = value;
}
